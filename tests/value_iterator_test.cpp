// The value iterator on real files: series read back across stored blocks
// and the tail block, seeking, memory types and parts, and the edits that
// rewrite a block (set a value, make it absent, cut the series).
#include "sd_stdio_file.h"
#include "sd_stdio_sequence_iterator.h"
#include "sd_stdio_value_iterator.h"
#include "sd_value.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <tuple>

using namespace orva_sd;

namespace {

constexpr long NA = LONG_MIN; // an absent sample
constexpr int N = SD_SEQUENCE_NONE, V = SD_SEQUENCE_VALUE;
using runs_t = std::vector<std::tuple<int, unsigned long, unsigned long>>; // class, count, repeat
using longs = std::vector<long>;

using iter_ptr = std::unique_ptr<sd_value_iterator>;

struct store {
    std::string path;
    std::unique_ptr<sd_stdio_file> file;

    explicit store(char const* name, sd_type_ptr const& type = SD_INT32)
        : path(sd_test::temp_path(name)), file(new sd_stdio_file(path.c_str(), true))
    {
        file->create_element("e", SDE_SENSOR, type, nullptr);
    }
    sd_element const* el() { return file->find_root_element("e").get(); }
    std::shared_ptr<sd_element_block> block() { return file->find_element_block_by_iid(el()->iid); }
    void reopen() { file.reset(), file.reset(new sd_stdio_file(path.c_str(), false)); } // closing flushes
    iter_ptr iter(sd_type_ptr const& mem = nullptr) { return iter_ptr(file->create_value_iterator(el(), mem)); }
    void append(longs const& samples, unsigned long repeat = 0) // repeat > 0: one value group
    {
        std::vector<int> v(samples.begin(), samples.end());
        unsigned long const n = v.size();
        if (repeat) {
            ASSERT_EQ(file->append_sequence(el(), new sd_value_sequence(SD_INT32, v.data(), 4 * n, n, repeat)), 0);
            return;
        }
        for (unsigned long i = 0; i < v.size(); ++i)
            ASSERT_EQ(file->append_raw_value(el(), samples[i] == NA ? nullptr : &v[i]), 0);
    }
    longs read() // the int32 series, to the end
    {
        longs out;
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
    return (i % 1000) >= 990 ? NA : static_cast<int>(static_cast<unsigned>(i) * 2654435761u);
}

// Tag 0: an int32 at 4; tag 1: nothing.
std::shared_ptr<sd_variant_type> option()
{
    auto t = std::make_shared<sd_variant_type>(-1, -1);
    t->add_constructor("a", SD_INT32, -1, -1, -1);
    t->add_constructor("c", nullptr, -1, -1, -1);
    return t;
}

long next(sd_value_iterator& it)
{
    int v = -1;
    unsigned char none, end;
    EXPECT_EQ(it.get_raw_value(&v, &none, &end), 0);
    return none ? NA : v;
}

} // namespace

TEST(ValueIterator, SeriesReadBackAcrossBlocks)
{
    store s("series.sd");
    long const stored = 300000, total = 300100;
    longs want(total);
    for (long i = 0; i < total; ++i) {
        if (i == stored)
            s.reopen(); // the rest stays in the tail block
        s.append({want[i] = sample(i)});
    }
    ASSERT_NE(s.block()->first_data_block_pos, s.block()->last_data_block_pos); // several stored blocks
    EXPECT_TRUE(s.read() == want); // the end flag comes with the last value only

    // In chunks, the last one short.
    auto it = s.iter();
    std::vector<int> buf(4096);
    std::vector<unsigned char> nones(4096);
    long done = 0;
    while (unsigned long n = it->get_raw_values(4096, buf.data(), nones.data()))
        for (unsigned long k = 0; k < n; ++k, ++done)
            ASSERT_EQ(nones[k] ? NA : buf[k], want[done]) << done;
    EXPECT_EQ(done, total);

    // Objects, after steps across a block and into an absent run.
    ASSERT_EQ(it->restart(), 0);
    for (long i = 0; i < 270995; ++i)
        ASSERT_EQ(it->seek(1), 0);
    for (long i = 270995; i < 271001; ++i) {
        std::unique_ptr<sd_value> val(it->get_value());
        auto* p = dynamic_cast<sd_predefined_int32_value*>(val.get());
        EXPECT_EQ(p ? p->value : val->klass() == SD_VALUE_NONE ? NA : -1, want[i]) << i;
    }
}

TEST(ValueIterator, RepeatsAbsentRunsAndSeekPastAGroup)
{
    store s("repeat.sd");
    s.append({10, 20, 30}, 2);
    ASSERT_EQ(s.file->append_sequence(s.el(), new sd_none_sequence(1000000)), 0);
    s.append({5, 6});
    auto it = s.iter();
    ASSERT_EQ(it->seek(4), 0); // into the second repetition
    EXPECT_EQ(next(*it), 20);
    ASSERT_EQ(it->seek(1), 0);
    ASSERT_EQ(it->seek(1000000), 0); // the whole run in one step
    EXPECT_EQ(next(*it), 5);
    it = s.iter();
    ASSERT_EQ(it->seek(6), 0);
    ASSERT_EQ(it->seek(1000001), 0); // one further than the run
    EXPECT_EQ(next(*it), 6);

    // A count left over at the end of a group is spent in that group's own
    // bytes while the position moves on: three steps here pass two groups.
    store t("pastgroup.sd");
    for (longs const& g : {longs{1}, longs{2, 3, 4, 5}, longs{6, 7}, longs{8}})
        t.append(g, 1);
    it = t.iter();
    ASSERT_EQ(it->seek(3), 0);
    EXPECT_EQ(next(*it), 8);
}

TEST(ValueIterator, SeekStepsAsTheDecoderDoes)
{
    auto padded = std::make_shared<sd_struct_type>(-1, 12);
    padded->add_field("a", SD_INT32, 0);
    padded->add_field("b", SD_INT16, 8);
    // Variable parts as long as the first fixed byte says: walked by decoding.
    auto vsize = std::make_shared<sd_imported_type>(
        -1, 4, [](void const* p) -> unsigned long long { return *static_cast<unsigned char const*>(p); },
        [](void const* p, unsigned char* out) { std::memset(out, 0xEE, *static_cast<unsigned char const*>(p)); });
    // An array without dimensions decodes to nothing, so seek never moves.
    auto no_dims = std::make_shared<sd_array_type>(-1, SD_INT32, std::vector<unsigned long>{});
    std::vector<sd_type_ptr> const types = {
        SD_INT16, padded, no_dims, option(), vsize, std::make_shared<sd_imported_type>(-1, 5),
        std::make_shared<sd_array_type>(-1, SD_INT16, std::vector<unsigned long>{2, 3})};
    for (sd_type_ptr const& type : types) {
        store s("shapes.sd", type);
        bool const consumes = type != no_dims;
        std::vector<unsigned char> raw(type->mem_size()), got(raw.size());
        for (int i = 1; i <= 6; ++i) {
            std::fill(raw.begin(), raw.end(), static_cast<unsigned char>(i));
            ASSERT_EQ(s.file->append_raw_value(s.el(), raw.data()), 0);
        }
        s.reopen();
        for (int k = 0; k <= 6; ++k) {
            auto it = s.iter();
            ASSERT_EQ(it->seek(k), 0) << type->to_string() << " " << k;
            unsigned char none, end;
            int rc = it->get_raw_value(got.data(), &none, &end);
            ASSERT_EQ(rc, consumes && k == 6 ? -1 : 0);
            if (rc == 0) {
                EXPECT_EQ(got, std::vector<unsigned char>(raw.size(), consumes ? k + 1 : 1)) << k;
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
    // A damaged group whose last image is cut short reads zero-filled,
    // copied or converted, and never past the stored bytes; an absent value
    // leaves its place in the destination alone.
    store t("cut.sd");
    unsigned char cut[] = {1, 0, 0, 0, 0xAA, 0xBB};
    ASSERT_EQ(t.file->append_sequence(t.el(), new sd_value_sequence(SD_INT32, cut, 6, 2, 1)), 0);
    t.append({NA, -3});
    t.reopen();
    EXPECT_EQ(t.read(), (longs{1, 0xBBAA, NA, -3}));
    long dst[6] = {77, 77, 77, 77, 77, 77};
    unsigned char none[6] = {};
    EXPECT_EQ(t.iter(SD_INT64)->get_raw_values(6, dst, none), 4u);
    EXPECT_EQ(longs(dst, dst + 6), (longs{1, 0xBBAA, 77, -3, 77, 77}));
    EXPECT_EQ(std::vector<int>(none, none + 4), (std::vector<int>{0, 0, 1, 0}));

    // A part behind a variant tag: other constructors read as absent.
    store u("part.sd", option());
    int vals[][2] = {{0, 10}, {1, 20}, {0, 30}};
    for (auto& r : vals)
        ASSERT_EQ(u.file->append_raw_value(u.el(), r), 0);
    sd_stdio_value_iterator a(u.file.get(), u.block(), SD_INT32, SD_INT32, nullptr, 4, {{0, 0}});
    int v[3] = {-1, -1, -1};
    EXPECT_EQ(a.get_raw_values(3, v, none), 3u);
    EXPECT_EQ(std::vector<int>(v, v + 3), (std::vector<int>{10, -1, 30}));
    sd_stdio_value_iterator c(u.file.get(), u.block(), nullptr, nullptr, nullptr, 4, {{0, 1}});
    std::vector<int> classes;
    while (std::unique_ptr<sd_value> val{c.get_value()})
        classes.push_back(val->klass());
    EXPECT_EQ(classes, (std::vector<int>{SD_VALUE_NONE, SD_VALUE_UNTYPED_CONSTRUCTOR, SD_VALUE_NONE}));
    // A part iterator reads only.
    sd_test::hook_counter hooks;
    EXPECT_EQ(a.set_raw_value(v), -1);
    EXPECT_EQ(a.clear_values(), -1);
    EXPECT_EQ(hooks.calls(), 2);
}

TEST(ValueIteratorWrite, EditsAndCutsRewriteTheBlock)
{
    constexpr long CUT = LONG_MAX, SKIP = LONG_MAX; // clear_values; read nothing after it
    longs const none10(10, NA);
    auto with = [](longs v, unsigned long at, long x) { return v[at] = x, v; };
    // The samples go in one by one, or as one group of `repeat` repetitions,
    // to a stored block or the tail block, and `tail` goes in after them.
    // At `at` a value is set (NA: absent; CUT: the series is cut off there),
    // and `here` is what the iterator reads next.
    struct {
        longs samples; unsigned long repeat; bool stored; longs tail;
        unsigned long at; long value, here; runs_t runs; longs after;
    } const cases[] = {
        {none10, 0, false, {}, 3, NA, NA, {{N, 10, 1}}, none10},
        {none10, 0, false, {}, 4, 42, 42, {{N, 4, 1}, {V, 1, 1}, {N, 5, 1}}, with(none10, 4, 42)},
        {none10, 0, true, {}, 0, 42, 42, {{V, 1, 1}, {N, 9, 1}}, with(none10, 0, 42)},
        {none10, 0, false, {}, 9, 42, 42, {{N, 9, 1}, {V, 1, 1}}, with(none10, 9, 42)},
        // A group left ahead keeps a count one above the values in its bytes.
        {{1, 2, 3, 4, 5}, 0, true, {}, 0, NA, NA, {{N, 1, 1}, {V, 4, 1}}, {NA, 2, 3, 4, 5}},
        {{1, 2, 3, 4, 5}, 0, false, {}, 2, NA, NA, {{V, 3, 1}, {N, 1, 1}, {V, 2, 1}}, {1, 2, NA, 4, 5}},
        {{1, 2, 3, 4, 5}, 0, true, {}, 4, NA, NA, {{V, 5, 1}, {N, 1, 1}}, {1, 2, 3, 4, NA}},
        // A rewritten group keeps one repetition and restarts the iterator on it.
        {{10, 20, 30}, 4, true, {}, 4, 9, 10, {{V, 3, 1}}, {10, 9, 30}},
        {{10, 20, 30}, 0, true, {}, 2, 9, 10, {{V, 3, 1}}, {10, 20, 9}},
        // Inside a repeated group every repetition is cut, and what follows goes.
        {{10, 20, 30}, 2, false, {NA, 40}, 1, CUT, SKIP, {{V, 1, 2}}, {10, 10}},
        // In the middle of an absent run its count becomes the position, and
        // the entries behind it leave the list; values still in the tail
        // block survive a cut in a stored block.
        {{NA, NA, NA, NA, NA, NA, 1, 2}, 0, true, {7}, 3, CUT, SKIP, {{N, 3, 1}, {V, 1, 1}}, {NA, NA, NA, 7}},
        {{NA, NA, NA, NA, NA, NA, 1, 2, NA}, 0, false, {}, 3, CUT, SKIP, {{N, 3, 1}}, {NA, NA, NA}},
        // At the first value of the only block: an empty block stays in the chain.
        {{1, 2}, 0, true, {}, 0, CUT, SKIP, {}, {}},
        // At the start of a later run of a stored block: the iterator moves to
        // the run ahead, and values still in the tail block survive the cut.
        {{1, 2, NA, NA, 3}, 0, true, {7, 8}, 2, CUT, 1, {{V, 2, 1}, {V, 2, 1}}, {1, 2, 7, 8}},
    };
    for (auto const& c : cases) {
        store s("edit.sd");
        s.append(c.samples, c.repeat);
        if (c.stored)
            s.reopen();
        s.append(c.tail);
        auto it = s.iter();
        ASSERT_EQ(it->seek(c.at), 0);
        int v = static_cast<int>(c.value);
        ASSERT_EQ(c.value == CUT ? it->clear_values() : it->set_raw_value(c.value == NA ? nullptr : &v), 0);
        if (c.here != SKIP) {
            EXPECT_EQ(next(*it), c.here);
        }
        it.reset();
        for (int pass = 0; pass < 2; ++pass, s.reopen()) {
            EXPECT_EQ(s.runs(), c.runs) << c.at << " pass " << pass;
            EXPECT_EQ(s.read(), c.after) << c.at << " pass " << pass;
            EXPECT_TRUE(!c.stored || s.block()->first_data_block_pos != -1);
        }
    }
}

TEST(ValueIteratorWrite, Preconditions)
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
    it = s.iter();
    ASSERT_EQ(it->seek(2), 0); // the end
    sd_test::hook_counter at_end;
    EXPECT_EQ(it->set_raw_value(&v), -1);
    EXPECT_EQ(it->clear_values(), -1);
    EXPECT_EQ(at_end.calls(), 2);
    EXPECT_EQ(s.read(), (longs{1, 2}));
}

TEST(ValueIteratorWrite, AbsentOverAbsentWritesNothing)
{
    store s("absent.sd");
    s.append({NA, NA, NA, NA, 5});
    s.reopen();
    std::fflush(s.file->stream);
    auto const before = sd_test::read_file(s.path);
    auto it = s.iter();
    ASSERT_EQ(it->seek(2), 0);
    ASSERT_EQ(it->set_raw_value(nullptr), 0);
    std::fflush(s.file->stream);
    EXPECT_EQ(sd_test::read_file(s.path), before); // not even the same bytes again at the end
    EXPECT_EQ(next(*it), NA); // the iterator stays where it was
    EXPECT_EQ(next(*it), NA);
    EXPECT_EQ(next(*it), 5);
    it.reset();
    EXPECT_EQ(s.runs(), (runs_t{{N, 4, 1}, {V, 1, 1}}));
}

TEST(ValueIterator, MemoryTypeWithoutConversionGivesNoIterator)
{
    // Nothing but a bool becomes a bool, and a char becomes no float.
    store s("noconv.sd");
    s.append({1});
    store c("noconv_char.sd", SD_CHAR8);
    for (auto const& r : {std::make_pair(&s, sd_type_ptr(SD_BOOL)), std::make_pair(&s, sd_type_ptr(SD_CHAR8)),
                          std::make_pair(&c, sd_type_ptr(SD_FLOAT32))}) {
        sd_test::hook_counter hooks;
        EXPECT_EQ(r.first->iter(r.second), nullptr);
        EXPECT_EQ(hooks.calls(), 1);
    }
    EXPECT_NE(s.iter(SD_INT64), nullptr); // a convertible pair for contrast
}
