// Runs in memory: how appended samples open and extend runs, what a flush
// leaves behind, clones, the variable parts stored behind a value, and the
// text of a run.
#include "sd_element.h"
#include "sd_sequence.h"
#include "sd_type.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <tuple>
#include <vector>

using namespace orva_sd;

namespace {

constexpr int NA = INT_MIN; // an absent sample

std::vector<unsigned char> bytes_of(sd_sequence const& s)
{
    auto const& b = static_cast<sd_value_sequence const&>(s).values;
    return std::vector<unsigned char>(b.data(), b.data() + b.size());
}

} // namespace

TEST(Sequences, AppendOpensAndExtendsRuns)
{
    sd_element element(14, "e", SDE_SENSOR, SD_INT32, nullptr, nullptr);
    struct {
        std::vector<int> samples;
        std::vector<std::tuple<int, unsigned long>> runs; // class, count
        unsigned long mem_size;
    } const cases[] = {
        {{NA}, {{1, 1}}, 17},
        {std::vector<int>(100000, NA), {{1, 100000}}, 17},
        {{1, NA, 2, NA}, {{2, 1}, {1, 1}, {2, 1}, {1, 1}}, 2 * (25 + 4) + 2 * 17},
        {{1, 2, 0x01020304, NA, NA}, {{2, 3}, {1, 2}}, 25 + 12 + 17},
    };
    for (auto const& c : cases) {
        sd_sequences s(&element);
        for (int v : c.samples)
            s.append_raw_value(v == NA ? nullptr : &v);
        std::vector<std::tuple<int, unsigned long>> runs;
        for (auto const& seq : s.list)
            runs.emplace_back(seq->klass(), seq->count);
        EXPECT_EQ(runs, c.runs);
        EXPECT_EQ(s.mem_size(), c.mem_size);
    }
    sd_sequences s(&element);
    for (int v : {1, 2, 0x01020304})
        s.append_raw_value(&v);
    EXPECT_EQ(bytes_of(*s.list.front()), (std::vector<unsigned char>{1, 0, 0, 0, 2, 0, 0, 0, 4, 3, 2, 1}));
    // Each stored value shows once, whatever the repeat factor.
    s.list.front()->repeat_factor = 5;
    EXPECT_EQ(s.list.front()->to_string(), "1 | 2 | 16909060 | ");
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

    std::unique_ptr<sd_sequence> copy(first->clone());
    EXPECT_EQ(std::make_tuple(copy->klass(), copy->count, copy->repeat_factor), std::make_tuple(2, 0ul, 3ul));
    EXPECT_EQ(copy->type, first->type);
    EXPECT_TRUE(bytes_of(*copy).empty());

    v = 6;
    s.append_raw_value(&v);
    ASSERT_EQ(s.list.size(), 1u);
    EXPECT_EQ(s.list.front().get(), first);
    EXPECT_EQ(s.mem_size(), 29u);
    EXPECT_EQ(bytes_of(*first), (std::vector<unsigned char>{6, 0, 0, 0}));

    // A first absent run is not kept, and clear(false) keeps nothing.
    for (bool keep : {true, false}) {
        sd_sequences t(&element);
        if (keep)
            t.append_raw_value(nullptr);
        t.append_raw_value(&v);
        t.clear(keep);
        EXPECT_TRUE(t.list.empty());
        EXPECT_EQ(t.mem_size(), 0u);
    }
}

TEST(Sequences, VariablePartsFollowTheFixedImage)
{
    // A part whose first fixed byte is its length; its data are A0, A1, ...
    auto vsize = std::make_shared<sd_imported_type>(
        -1, 8, [](void const* p) -> unsigned long long { return *static_cast<unsigned char const*>(p); },
        [](void const* p, unsigned char* out) {
            for (unsigned i = 0; i < *static_cast<unsigned char const*>(p); ++i)
                out[i] = static_cast<unsigned char>(0xA0 + i);
        });
    auto pair = std::make_shared<sd_struct_type>(-1, -1);
    pair->add_field("p", vsize, -1);
    pair->add_field("q", vsize, -1);

    sd_value_sequence seq(pair, nullptr, 0, 0, 1);
    unsigned char raw[16] = {3, 9, 9, 9, 9, 9, 9, 9, 0, 7, 7, 7, 7, 7, 7, 7};
    EXPECT_EQ(seq.append_raw_value(raw), 16u + 8 + 3 + 8);
    std::vector<unsigned char> expected(raw, raw + 16);
    for (unsigned char b : {3, 0, 0, 0, 0, 0, 0, 0, 0xA0, 0xA1, 0xA2, 0, 0, 0, 0, 0, 0, 0, 0})
        expected.push_back(b);
    EXPECT_EQ(bytes_of(seq), expected);
    EXPECT_EQ(seq.count, 1u);

    // Below a variant a variable part is stored by its fixed bytes alone.
    auto variant = std::make_shared<sd_variant_type>(-1, -1);
    variant->add_constructor("x", pair, -1, -1, -1);
    unsigned char vraw[20] = {0, 0, 0, 0, 3};
    sd_value_sequence vseq(variant, nullptr, 0, 0, 1);
    EXPECT_EQ(vseq.append_raw_value(vraw), 20u);
    EXPECT_EQ(vseq.values.size(), 20u);
}
