// The value iterator on real files: series read back across stored blocks
// and the tail block, seeking, memory types and parts, and the edits that
// rewrite a block (set a value, make it absent, cut the series).
#include "sd_element.h"
#include "sd_sequence.h"
#include "sd_stdio_file.h"
#include "sd_stdio_sequence_iterator.h"
#include "sd_stdio_value_iterator.h"
#include "sd_type.h"
#include "sd_value.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <vector>

using namespace orva_sd;

namespace {

constexpr long NA = LONG_MIN; // an absent sample
constexpr int N = SD_SEQUENCE_NONE, V = SD_SEQUENCE_VALUE;
using runs_t = std::vector<std::tuple<int, unsigned long, unsigned long>>; // class, count, repeat

struct store {
    std::string path;
    std::unique_ptr<sd_stdio_file> file;

    explicit store(char const* name, sd_type_ptr const& type = SD_INT32)
        : path(sd_test::temp_path(name)), file(new sd_stdio_file(path.c_str(), true))
    {
        file->create_element("e", SDE_SENSOR, type, nullptr);
    }
    sd_element const* el() { return file->find_root_element("e").get(); }
    void reopen()
    {
        file.reset(); // closing flushes the tail block
        file.reset(new sd_stdio_file(path.c_str(), false));
    }
    std::unique_ptr<sd_value_iterator> iter(sd_type_ptr const& mem = nullptr)
    {
        return std::unique_ptr<sd_value_iterator>(file->create_value_iterator(el(), mem));
    }
    void append(std::vector<long> const& samples)
    {
        for (long s : samples) {
            int v = static_cast<int>(s);
            ASSERT_EQ(file->append_raw_value(el(), s == NA ? nullptr : &v), 0);
        }
    }
    void append_group(std::vector<int> g, unsigned long repeat = 1)
    {
        auto* seq = new sd_value_sequence(SD_INT32, g.data(), 4 * g.size(), g.size(), repeat);
        ASSERT_EQ(file->append_sequence(el(), seq), 0);
    }
    // The int32 series through get_raw_value, to the end.
    std::vector<long> read()
    {
        std::vector<long> out;
        auto it = iter();
        int v;
        unsigned char none, end = 0;
        while (!end && it->get_raw_value(&v, &none, &end) == 0)
            out.push_back(none ? NA : v);
        return out;
    }
    runs_t runs()
    {
        runs_t out;
        std::unique_ptr<sd_sequence_iterator> it(file->create_sequence_iterator(el()));
        while (std::unique_ptr<sd_sequence> s{it->get_sequence()})
            out.emplace_back(s->klass(), s->count, s->repeat_factor);
        return out;
    }
};

long sample(long i)
{
    // Absent runs of ten; values scrambled so that compressing stays quick.
    return (i % 1000) >= 990 ? NA : long(static_cast<unsigned long>(i) * 0x9E3779B97F4A7C15UL >> 2);
}

int next_int(sd_value_iterator& it)
{
    int v = -1;
    unsigned char none, end;
    EXPECT_EQ(it.get_raw_value(&v, &none, &end), 0);
    return none ? INT_MIN : v;
}

} // namespace

TEST(ValueIterator, SeriesReadBackAcrossBlocks)
{
    store s("series.sd", SD_INT64);
    long const stored = 300000, total = 300100;
    for (long i = 0; i < total; ++i) {
        if (i == stored)
            s.reopen(); // the rest stays in the tail block
        long v = sample(i);
        ASSERT_EQ(s.file->append_raw_value(s.el(), v == NA ? nullptr : &v), 0);
    }
    auto block = s.file->find_element_block_by_iid(s.el()->iid);
    ASSERT_NE(block->first_data_block_pos, block->last_data_block_pos); // several stored blocks

    auto it = s.iter();
    long v;
    unsigned char none, end = 0;
    for (long i = 0; i < total; ++i) {
        ASSERT_EQ(it->get_raw_value(&v, &none, &end), 0) << i;
        ASSERT_EQ(none ? NA : v, sample(i)) << i;
        ASSERT_EQ(end, i == total - 1 ? 1 : 0) << i;
    }
    EXPECT_EQ(it->get_raw_value(&v, &none, &end), -1);
    EXPECT_EQ(it->seek(0), 0);

    // In chunks, the last one short.
    ASSERT_EQ(it->restart(), 0);
    std::vector<long> buf(4096, 0);
    std::vector<unsigned char> nones(4096);
    long done = 0;
    while (unsigned long n = it->get_raw_values(4096, buf.data(), nones.data()))
        for (unsigned long k = 0; k < n; ++k, ++done)
            ASSERT_EQ(nones[k] ? NA : buf[k], sample(done)) << done;
    EXPECT_EQ(done, total);

    // Objects, after steps across a block and into an absent run.
    ASSERT_EQ(it->restart(), 0);
    for (long i = 0; i < 131995; ++i)
        ASSERT_EQ(it->seek(1), 0);
    for (long i = 131995; i < 132001; ++i) {
        std::unique_ptr<sd_value> val(it->get_value());
        if (sample(i) == NA)
            EXPECT_EQ(val->klass(), SD_VALUE_NONE);
        else
            EXPECT_EQ(dynamic_cast<sd_predefined_int64_value&>(*val).value, sample(i));
    }
}

TEST(ValueIterator, RepeatsAbsentRunsAndSeekPastAGroup)
{
    store s("repeat.sd");
    s.append_group({10, 20, 30}, 2);
    ASSERT_EQ(s.file->append_sequence(s.el(), new sd_none_sequence(1000000)), 0);
    s.append({5, 6});
    std::vector<long> all = s.read();
    all.erase(all.begin() + 7, all.begin() + 1000006);
    EXPECT_EQ(all, (std::vector<long>{10, 20, 30, 10, 20, 30, NA, 5, 6}));

    auto it = s.iter();
    ASSERT_EQ(it->seek(4), 0); // into the second repetition
    EXPECT_EQ(next_int(*it), 20);
    ASSERT_EQ(it->seek(1), 0);
    ASSERT_EQ(it->seek(1000000), 0); // the whole run in one step
    EXPECT_EQ(next_int(*it), 5);
    it = s.iter();
    ASSERT_EQ(it->seek(6), 0);
    ASSERT_EQ(it->seek(1000001), 0); // one further than the run
    EXPECT_EQ(next_int(*it), 6);

    // A count left over at the end of a group is spent in that group's own
    // bytes while the position moves on: three steps here pass two groups.
    store t("pastgroup.sd");
    for (auto const& g : std::vector<std::vector<int>>{{1}, {2, 3, 4, 5}, {6, 7}, {8}})
        t.append_group(g);
    it = t.iter();
    ASSERT_EQ(it->seek(3), 0);
    EXPECT_EQ(next_int(*it), 8);
}

TEST(ValueIterator, SeekStepsAsTheDecoderDoes)
{
    auto padded = std::make_shared<sd_struct_type>(-1, 12);
    padded->add_field("a", SD_INT32, 0);
    padded->add_field("b", SD_INT16, 8);
    auto variant = std::make_shared<sd_variant_type>(-1, -1);
    variant->add_constructor("a", SD_INT32, -1, -1, -1);
    variant->add_constructor("c", nullptr, -1, -1, -1);
    // Variable parts as long as the first fixed byte says: walked by decoding.
    auto vsize = std::make_shared<sd_imported_type>(
        -1, 4, [](void const* p) -> unsigned long long { return *static_cast<unsigned char const*>(p); },
        [](void const* p, unsigned char* out) { std::memset(out, 0xEE, *static_cast<unsigned char const*>(p)); });
    struct {
        sd_type_ptr type;
        bool consumes; // an array without dimensions decodes to nothing
    } const cases[] = {
        {SD_INT16, true},
        {padded, true},
        {std::make_shared<sd_array_type>(-1, SD_INT16, std::vector<unsigned long>{2, 3}), true},
        {std::make_shared<sd_array_type>(-1, SD_INT32, std::vector<unsigned long>{}), false},
        {variant, true},
        {std::make_shared<sd_imported_type>(-1, 5), true},
        {vsize, true},
    };
    for (auto const& c : cases) {
        store s("shapes.sd", c.type);
        unsigned long size = c.type->mem_size();
        std::vector<unsigned char> raw(size), got(size);
        for (int i = 1; i <= 6; ++i) {
            std::fill(raw.begin(), raw.end(), static_cast<unsigned char>(i));
            ASSERT_EQ(s.file->append_raw_value(s.el(), raw.data()), 0);
        }
        s.reopen();
        for (int k = 0; k <= 6; ++k) {
            auto it = s.iter();
            ASSERT_EQ(it->seek(k), 0) << c.type->to_string() << " " << k;
            unsigned char none, end;
            int rc = it->get_raw_value(got.data(), &none, &end);
            ASSERT_EQ(rc, c.consumes && k == 6 ? -1 : 0);
            if (rc == 0) {
                EXPECT_EQ(got, std::vector<unsigned char>(size, c.consumes ? k + 1 : 1)) << k;
            }
        }
    }

    // A field beyond the fixed size makes the decode of the second of three
    // values read past the buffer: seek raises there, as decoding does.
    auto beyond = std::make_shared<sd_struct_type>(-1, 4);
    beyond->add_field("x", SD_INT32, 8);
    store s("beyond.sd", beyond);
    s.append({1, 2, 3});
    auto it = s.iter();
    EXPECT_EQ(it->seek(1), 0);
    EXPECT_THROW(it->seek(1), std::out_of_range);
}

TEST(ValueIterator, MemoryTypesAndParts)
{
    store s("wide.sd", SD_INT16);
    short raw[] = {1, -3, 4};
    for (short* p : {&raw[0], static_cast<short*>(nullptr), &raw[1], &raw[2]})
        ASSERT_EQ(s.file->append_raw_value(s.el(), p), 0);
    long dst[6] = {77, 77, 77, 77, 77, 77};
    unsigned char none[6] = {};
    EXPECT_EQ(s.iter(SD_INT64)->get_raw_values(6, dst, none), 4u);
    EXPECT_EQ(std::vector<long>(dst, dst + 6), (std::vector<long>{1, 77, -3, 4, 77, 77}));
    EXPECT_EQ(std::vector<int>(none, none + 4), (std::vector<int>{0, 1, 0, 0}));

    // A damaged group whose last image is cut short reads zero-filled,
    // copied or converted, and never past the stored bytes.
    store t("cut.sd");
    unsigned char cut[] = {1, 0, 0, 0, 0xAA, 0xBB};
    ASSERT_EQ(t.file->append_sequence(t.el(), new sd_value_sequence(SD_INT32, cut, 6, 2, 1)), 0);
    t.reopen();
    EXPECT_EQ(t.read(), (std::vector<long>{1, 0xBBAA}));
    EXPECT_EQ(t.iter(SD_INT64)->get_raw_values(2, dst, none), 2u);
    EXPECT_EQ(dst[1], 0xBBAA);

    // A part behind a variant tag: other constructors read as absent.
    auto variant = std::make_shared<sd_variant_type>(-1, -1);
    variant->add_constructor("a", SD_INT32, -1, -1, -1); // tag 0, value at 4
    variant->add_constructor("c", nullptr, -1, -1, -1);  // tag 1
    store u("part.sd", variant);
    int vals[][2] = {{0, 10}, {1, 20}, {0, 30}};
    for (auto& r : vals)
        ASSERT_EQ(u.file->append_raw_value(u.el(), r), 0);
    auto block = u.file->find_element_block_by_iid(u.el()->iid);
    sd_stdio_value_iterator a(u.file.get(), block, SD_INT32, SD_INT32, nullptr, 4, {{0, 0}});
    int v[3] = {-1, -1, -1};
    EXPECT_EQ(a.get_raw_values(3, v, none), 3u);
    EXPECT_EQ(std::vector<int>(v, v + 3), (std::vector<int>{10, -1, 30}));
    sd_stdio_value_iterator c(u.file.get(), block, nullptr, nullptr, nullptr, 4, {{0, 1}});
    std::vector<int> classes;
    while (std::unique_ptr<sd_value> val{c.get_value()})
        classes.push_back(val->klass());
    EXPECT_EQ(classes, (std::vector<int>{SD_VALUE_NONE, SD_VALUE_UNTYPED_CONSTRUCTOR, SD_VALUE_NONE}));
}

TEST(ValueIteratorWrite, EditsRewriteTheBlock)
{
    std::vector<long> const none10(10, NA);
    auto with = [](std::vector<long> v, unsigned long at, long x) { v[at] = x; return v; };
    struct {
        std::vector<long> samples;
        unsigned long repeat; // above 1: the samples go in as one repeated group
        bool stored;          // edited in a stored block, or in the tail block
        unsigned long at;
        long value;           // NA: make absent
        long here;            // what the iterator reads right after the edit
        runs_t runs;
        std::vector<long> after;
    } const cases[] = {
        {none10, 1, false, 3, NA, NA, {{N, 10, 1}}, none10},
        {none10, 1, false, 4, 42, 42, {{N, 4, 1}, {V, 1, 1}, {N, 5, 1}}, with(none10, 4, 42)},
        {none10, 1, true, 0, 42, 42, {{V, 1, 1}, {N, 9, 1}}, with(none10, 0, 42)},
        {none10, 1, false, 9, 42, 42, {{N, 9, 1}, {V, 1, 1}}, with(none10, 9, 42)},
        // A group left ahead keeps a count one above the values in its bytes.
        {{1, 2, 3, 4, 5}, 1, true, 0, NA, NA, {{N, 1, 1}, {V, 4, 1}}, {NA, 2, 3, 4, 5}},
        {{1, 2, 3, 4, 5}, 1, false, 2, NA, NA, {{V, 3, 1}, {N, 1, 1}, {V, 2, 1}}, {1, 2, NA, 4, 5}},
        {{1, 2, 3, 4, 5}, 1, true, 4, NA, NA, {{V, 5, 1}, {N, 1, 1}}, {1, 2, 3, 4, NA}},
        // A rewritten group keeps one repetition and restarts the iterator on it.
        {{10, 20, 30}, 4, true, 4, 9, 10, {{V, 3, 1}}, {10, 9, 30}},
        {{10, 20, 30}, 1, true, 2, 9, 10, {{V, 3, 1}}, {10, 20, 9}},
    };
    for (auto const& c : cases) {
        store s("edit.sd");
        if (c.repeat > 1)
            s.append_group(std::vector<int>(c.samples.begin(), c.samples.end()), c.repeat);
        else
            s.append(c.samples);
        if (c.stored)
            s.reopen();
        auto it = s.iter();
        ASSERT_EQ(it->seek(c.at), 0);
        int v = static_cast<int>(c.value);
        ASSERT_EQ(it->set_raw_value(c.value == NA ? nullptr : &v), 0);
        EXPECT_EQ(next_int(*it), c.here == NA ? INT_MIN : c.here);
        for (int pass = 0; pass < 2; ++pass, s.reopen()) {
            EXPECT_EQ(s.runs(), c.runs) << c.at << " pass " << pass;
            EXPECT_EQ(s.read(), c.after) << c.at << " pass " << pass;
        }
    }
}

TEST(ValueIteratorWrite, PreconditionsAndCuts)
{
    store s("pre.sd");
    auto it = s.iter(); // an element without values: the iterator stands at the end
    sd_test::hook_counter hooks;
    int v = 3;
    unsigned char none = 9, end = 9;
    EXPECT_EQ(it->get_raw_value(&v, &none, &end), -1);
    EXPECT_EQ(none + end, 18); // neither flag is written
    EXPECT_EQ(it->seek(0), 0);
    EXPECT_EQ(it->seek(1), -1);
    EXPECT_EQ(it->get_value(), nullptr);
    EXPECT_EQ(it->restart(), -1);
    EXPECT_EQ(hooks.calls(), 4);

    s.append({1, 2});
    auto block = s.file->find_element_block_by_iid(s.el()->iid);
    sd_stdio_value_iterator part(s.file.get(), block, SD_INT16, SD_INT16, nullptr, 0, {});
    EXPECT_EQ(part.set_raw_value(&v), -1);
    EXPECT_EQ(part.clear_values(), -1);
    EXPECT_EQ(hooks.calls(), 6);
    it = s.iter();
    ASSERT_EQ(it->seek(2), 0); // the end
    EXPECT_EQ(it->set_raw_value(&v), -1);
    EXPECT_EQ(it->clear_values(), -1);
    EXPECT_EQ(s.read(), (std::vector<long>{1, 2}));

    // Inside a repeated group: every repetition is cut, and what follows goes.
    store r("cutrepeat.sd");
    r.append_group({10, 20, 30}, 2);
    r.append({NA, 40});
    it = r.iter();
    ASSERT_EQ(it->seek(1), 0);
    ASSERT_EQ(it->clear_values(), 0);
    EXPECT_EQ(r.runs(), (runs_t{{V, 1, 2}}));
    EXPECT_EQ(r.read(), (std::vector<long>{10, 10}));

    // At the first value of the only block: an empty block stays in the chain.
    s.reopen();
    ASSERT_EQ(s.iter()->clear_values(), 0);
    s.reopen();
    EXPECT_NE(s.file->find_element_block_by_iid(s.el()->iid)->first_data_block_pos, -1);
    EXPECT_TRUE(s.runs().empty());
    EXPECT_TRUE(s.read().empty());

    // At the start of a later run of a stored block: the iterator moves to
    // the run ahead, and values still in the tail block survive the cut.
    store t("cutstored.sd");
    t.append({1, 2, NA, NA, 3});
    t.reopen();
    t.append({7, 8});
    it = t.iter();
    ASSERT_EQ(it->seek(2), 0);
    ASSERT_EQ(it->clear_values(), 0);
    EXPECT_EQ(next_int(*it), 1);
    it.reset();
    for (int pass = 0; pass < 2; ++pass, t.reopen())
        EXPECT_EQ(t.read(), (std::vector<long>{1, 2, 7, 8}));
}
