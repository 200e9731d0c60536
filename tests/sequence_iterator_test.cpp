// The sequence iterator: runs handed out in stored order, as independent
// clones with count and repeat factor intact, stored blocks before the tail.
#include "sd_stdio_file.h"
#include "sd_stdio_sequence_iterator.h"
#include "sd_stdio_value_iterator.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

using namespace orva_sd;

namespace {

using runs_t = std::vector<std::tuple<int, unsigned long, unsigned long>>; // class, count, repeat

runs_t runs(sd_file& f, sd_element_ptr const& e)
{
    runs_t out;
    std::unique_ptr<sd_sequence_iterator> it(f.create_sequence_iterator(e.get()));
    while (std::unique_ptr<sd_sequence> s{it->get_sequence()})
        out.emplace_back(s->klass(), s->count, s->repeat_factor);
    return out;
}

} // namespace

TEST(SequenceIterator, ClonesInOrderStoredBeforeTail)
{
    std::string path = sd_test::temp_path("seqs.sd");
    auto f = std::make_unique<sd_stdio_file>(path.c_str(), true);
    auto e = f->create_element("e", SDE_SENSOR, SD_INT32, nullptr);
    int abc[] = {1, 2, 3};
    ASSERT_EQ(f->append_sequence(e.get(), new sd_value_sequence(SD_INT32, abc, 12, 3, 7)), 0);
    ASSERT_EQ(f->append_sequence(e.get(), new sd_none_sequence(4)), 0);
    ASSERT_EQ(f->append_sequence(e.get(), new sd_none_sequence(2)), 0); // not merged
    f.reset(); // closing flushes
    f = std::make_unique<sd_stdio_file>(path.c_str(), false);
    e = f->find_root_element("e");
    ASSERT_EQ(f->append_raw_value(e.get(), abc), 0); // tail block
    EXPECT_EQ(runs(*f, e), (runs_t{{2, 3, 7}, {1, 4, 1}, {1, 2, 1}, {2, 1, 1}}));
    std::unique_ptr<sd_sequence_iterator> it(f->create_sequence_iterator(e.get()));
    std::unique_ptr<sd_sequence> first(it->get_sequence());
    auto const& b = static_cast<sd_value_sequence&>(*first).values;
    EXPECT_EQ(std::vector<unsigned char>(b.data(), b.data() + b.size()),
              (std::vector<unsigned char>{1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0}));

    // No data: the iterator exists, finds nothing, and unlike the value iterator's fails seek(0).
    auto g = f->create_element("g", SDE_SENSOR, SD_INT32, nullptr);
    it.reset(f->create_sequence_iterator(g.get()));
    sd_test::hook_counter hooks;
    EXPECT_EQ(it->get_sequence(), nullptr);
    EXPECT_EQ(it->seek(0), -1);
    EXPECT_EQ(hooks.calls(), 2);

    // Copied behind an absent value, the runs keep their shape and stay apart.
    ASSERT_EQ(f->append_raw_value(g.get(), nullptr), 0);
    it.reset(f->create_sequence_iterator(e.get()));
    while (sd_sequence* s = it->get_sequence())
        ASSERT_EQ(f->append_sequence(g.get(), s), 0);
    EXPECT_EQ(runs(*f, g), (runs_t{{1, 1, 1}, {2, 3, 7}, {1, 4, 1}, {1, 2, 1}, {2, 1, 1}}));

    // The last sequence comes with a failing step inside; then null.
    it.reset(f->create_sequence_iterator(e.get()));
    ASSERT_EQ(it->seek(3), 0);
    sd_test::hook_counter at_last;
    std::unique_ptr<sd_sequence> last(it->get_sequence());
    EXPECT_EQ(last ? last->count : 0, 1u);
    EXPECT_EQ(at_last.calls(), 3);
    EXPECT_EQ(it->get_sequence(), nullptr);
}

TEST(SequenceIterator, FlushResidueIsAnEmptyValueSequence)
{
    sd_stdio_file f(sd_test::temp_path("residue.sd").c_str(), true);
    auto e = f.create_element("e", SDE_SENSOR, SD_INT32, nullptr);
    std::vector<int> big(1 << 18, 5); // 1 MiB of values: flushed at once
    ASSERT_EQ(f.append_sequence(e.get(), new sd_value_sequence(SD_INT32, big.data(), 4 << 18, 1 << 18, 1)), 0);
    ASSERT_EQ(f.append_raw_value(e.get(), nullptr), 0);
    EXPECT_EQ(runs(f, e), (runs_t{{2, 1 << 18, 1}, {2, 0, 1}, {1, 1, 1}}));

    // A value iterator comes to rest on that residue and cannot read it.
    std::unique_ptr<sd_value_iterator> it(f.create_value_iterator(e.get(), nullptr));
    ASSERT_EQ(it->seek((1 << 18) - 1), 0);
    unsigned char v[4], none, end;
    EXPECT_THROW(it->get_raw_value(v, &none, &end), std::out_of_range);
}
