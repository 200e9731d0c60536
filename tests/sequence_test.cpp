// Runs in memory: how appended samples open and extend runs, what a flush
// leaves behind, clones, the variable parts stored behind a value, and the
// text of a run.
#include "sd_element.h"
#include "sd_sequence.h"
#include "sd_type.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <tuple>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

constexpr int NA = INT_MIN; // an absent sample

bytes bytes_of(sd_sequence const& s)
{
    auto const& b = static_cast<sd_value_sequence const&>(s).values;
    return bytes(b.data(), b.data() + b.size());
}

} // namespace

TEST(Sequences, AppendOpensAndExtendsRuns)
{
    sd_element element(14, "e", SDE_SENSOR, SD_INT32, nullptr, nullptr);
    using runs_t = std::vector<std::tuple<int, unsigned long>>; // class, count
    // `first`: the bytes of the first run, if it holds values.
    struct { std::vector<int> samples; runs_t runs; unsigned long mem_size; bytes first; } const cases[] = {
        {std::vector<int>(100000, NA), {{1, 100000}}, 17, {}},
        {{1, NA, 2, NA}, {{2, 1}, {1, 1}, {2, 1}, {1, 1}}, 2 * (25 + 4) + 2 * 17, {1, 0, 0, 0}},
        {{1, 2, 0x01020304, NA, NA}, {{2, 3}, {1, 2}}, 25 + 12 + 17, {1, 0, 0, 0, 2, 0, 0, 0, 4, 3, 2, 1}},
    };
    for (auto const& c : cases) {
        sd_sequences s(&element);
        for (int v : c.samples)
            s.append_raw_value(v == NA ? nullptr : &v);
        runs_t runs;
        for (auto const& seq : s.list)
            runs.emplace_back(seq->klass(), seq->count);
        EXPECT_EQ(runs, c.runs);
        EXPECT_EQ(s.mem_size(), c.mem_size);
        EXPECT_EQ(c.first.empty() ? bytes{} : bytes_of(*s.list.front()), c.first);
    }
    // Each stored value shows once, whatever the repeat factor.
    sd_value_sequence group(SD_INT32, "\1\0\0\0\4\3\2\1", 8, 2, 5);
    EXPECT_EQ(group.to_string(), "1 | 16909060 | ");
    EXPECT_EQ(sd_none_sequence(3).to_string(), "none | none | none | ");
    EXPECT_EQ(sd_none_sequence(0).to_string(), "");
}

TEST(Sequences, FlushResidueContinuesTheFirstValueRun)
{
    sd_element element(14, "e", SDE_SENSOR, SD_INT32, nullptr, nullptr);
    sd_sequences s(&element);
    int v = 5;
    s.append_raw_value(&v);
    s.append_raw_value(nullptr);
    sd_sequence* first = s.list.front().get();
    first->repeat_factor = 3;
    s.clear(true);
    ASSERT_EQ(s.list.size(), 1u);
    EXPECT_EQ(s.list.front().get(), first);
    EXPECT_EQ(s.mem_size(), 25u);

    v = 6;
    s.append_raw_value(&v);
    ASSERT_EQ(s.list.size(), 1u);
    EXPECT_EQ(s.list.front().get(), first);
    EXPECT_EQ(s.mem_size(), 29u);
    EXPECT_EQ(first->repeat_factor, 3u);
    EXPECT_EQ(bytes_of(*first), (bytes{6, 0, 0, 0}));

    // A first absent run is not kept, and clear(false) keeps nothing.
    sd_sequences t(&element), u(&element);
    t.append_raw_value(nullptr);
    t.append_raw_value(&v);
    t.clear(true);
    u.append_raw_value(&v);
    u.clear(false);
    EXPECT_TRUE(t.list.empty() && u.list.empty());
    EXPECT_EQ(t.mem_size() + u.mem_size(), 0u);
}

TEST(Sequences, VariablePartsFollowTheFixedImage)
{
    // A part whose first fixed byte is its length; its data are all A0.
    auto vsize = std::make_shared<sd_imported_type>(
        -1, 8, [](void const* p) -> unsigned long long { return *static_cast<unsigned char const*>(p); },
        [](void const* p, unsigned char* out) { std::memset(out, 0xA0, *static_cast<unsigned char const*>(p)); });
    auto pair = std::make_shared<sd_struct_type>(-1, -1);
    pair->add_field("p", vsize, -1);
    pair->add_field("q", vsize, -1);
    sd_value_sequence seq(pair, nullptr, 0, 0, 1);
    unsigned char raw[16] = {3, 9, 9, 9, 9, 9, 9, 9, 0, 7, 7, 7, 7, 7, 7, 7};
    EXPECT_EQ(seq.append_raw_value(raw), 16u + 8 + 3 + 8);
    EXPECT_EQ(bytes_of(seq), (bytes{3, 9, 9, 9, 9, 9, 9, 9, 0, 7, 7, 7, 7, 7, 7, 7, 3, 0, 0, 0, 0, 0, 0, 0,
                                    0xA0, 0xA0, 0xA0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // The worked sample: 8 fixed bytes, a length of 3 and AA BB CC from the
    // callbacks, stored as fixed bytes, a 64-bit length, then the part.
    auto three = std::make_shared<sd_imported_type>(
        -1, 8, [](void const*) -> unsigned long long { return 3; },
        [](void const*, unsigned char* out) { out[0] = 0xAA, out[1] = 0xBB, out[2] = 0xCC; });
    sd_value_sequence sample(three, nullptr, 0, 0, 1);
    unsigned char const fixed[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    EXPECT_EQ(sample.append_raw_value(fixed), 19u);
    EXPECT_EQ(bytes_of(sample), (bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x03, 0, 0, 0, 0, 0, 0, 0,
                                       0xAA, 0xBB, 0xCC}));

    // Below a variant a variable part is stored by its fixed bytes alone.
    auto variant = std::make_shared<sd_variant_type>(-1, -1);
    variant->add_constructor("x", pair, -1, -1, -1);
    unsigned char vraw[20] = {0, 0, 0, 0, 3};
    sd_value_sequence vseq(variant, nullptr, 0, 0, 1);
    EXPECT_EQ(vseq.append_raw_value(vraw), 20u);
}
