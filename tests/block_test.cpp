// Block frames and chains: where each link update writes, the element record's
// exact bytes, and the failure counts of the primitives once the stream is gone.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

using sd_test::get;

} // namespace

TEST(Blocks, LinkUpdatesWriteEightBytesAtTheirPlace)
{
    std::string const path = sd_test::temp_path("links.sd");
    sd_stdio_file f(path.c_str(), true);
    ASSERT_TRUE(f.create_element("x", SDE_SENSOR, SD_INT32, nullptr));
    sd_element_block& blk = *f.find_element_block_by_iid(14);
    // The call, where its value must land, the field that mirrors it (if any), hooks once closed.
    struct { std::function<int(long)> update; long at, *memory; int hooks; } const cases[] = {
        {[&](long v) { return f.update_header_first_type_block_pos(v); }, 16, &f.first_type_block_pos, 2},
        {[&](long v) { return f.update_header_first_element_block_pos(v); }, 24, &f.first_element_block_pos, 2},
        {[&](long v) { return f.update_header_first_free_space_block_pos(v); }, 32, &f.first_free_space_block_pos, 2},
        {[&](long v) { return f.update_block_next_block_pos(40L, v); }, 52, nullptr, 2},
        {[&](long v) { return f.update_block_next_block_pos(blk, v); }, 52, &blk.next_block_pos, 3},
        {[&](long v) { return f.update_block_prev_block_pos(blk, v); }, 44, &blk.prev_block_pos, 2},
        {[&](long v) { return f.update_block_prev_block_pos(40L, v); }, 40, nullptr, 2},
        {[&](long v) { return f.update_element_first_data_block_pos(blk, v); }, 60, &blk.first_data_block_pos, 2},
        {[&](long v) { return f.update_element_last_data_block_pos(blk, v); }, 68, &blk.last_data_block_pos, 2},
    };
    long value = 0x0102030405060708;
    for (auto const& c : cases) {
        ASSERT_EQ(c.update(++value), 0) << c.at;
        std::fflush(f.stream);
        bytes const b = sd_test::read_file(path);
        EXPECT_EQ(b.size(), 94u);
        EXPECT_EQ(get<long>(b, c.at), value) << c.at;
        EXPECT_EQ(c.memory ? *c.memory : value, value) << c.at;
    }
    ASSERT_EQ(f.close(), 0);
    for (auto const& c : cases) {
        long const before = c.memory ? *c.memory : 0;
        sd_test::hook_counter hooks;
        EXPECT_EQ(c.update(7), -1) << c.at;
        EXPECT_EQ(hooks.calls(), c.hooks) << c.at;
        EXPECT_EQ(c.memory ? *c.memory : 0, before) << c.at;
    }
}

TEST(Blocks, ElementRecordsHaveTheirExactBytesAndAClosedFileRefusesEverything)
{
    std::string const path = sd_test::temp_path("element.sd");
    sd_stdio_file f(path.c_str(), true);
    ASSERT_TRUE(f.create_element("x", SDE_SENSOR, SD_INT32, nullptr));
    ASSERT_EQ(f.close(), 0);
    // Size, prev, next, first and last data block, iid, name length, name, kind, type, parent.
    bytes expected = {0x36, 0, 0, 0};
    expected.insert(expected.end(), 32, 0xFF);
    expected.insert(expected.end(), {0x0E, 0, 0, 0, 0x01, 0, 0, 0, 0x78, 0x00, 0x06, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
    bytes b = sd_test::read_file(path);
    ASSERT_EQ(b.size(), 94u);
    EXPECT_EQ(bytes(b.begin() + 40, b.end()), expected);
    sd_stdio_file g(path.c_str(), false); // the tail is known again after a reopen
    auto const x = g.find_root_element("x");
    ASSERT_TRUE(x && g.create_element("", SDE_ASSERT, nullptr, x));
    ASSERT_EQ(g.close(), 0);
    b = sd_test::read_file(path);
    EXPECT_EQ(get<long>(b, 40 + 12), 94); // the old tail links forward
    expected = {0x35, 0, 0, 0, 0x28, 0, 0, 0, 0, 0, 0, 0}; // an empty name, linked back
    expected.insert(expected.end(), 24, 0xFF);
    expected.insert(expected.end(), {0x0F, 0, 0, 0, 0, 0, 0, 0, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0x0E, 0, 0, 0});
    ASSERT_EQ(b.size(), 94u + 53u);
    EXPECT_EQ(bytes(b.begin() + 94, b.end()), expected);
    sd_buffer buffer;
    buffer.append(1);
    struct { char const* what; std::function<bool()> fails; int hooks; } const cases[] = {
        {"seek", [&] { return g.seek(0) == -1; }, 1}, {"write", [&] { return g.write("x", 1) == -1; }, 1},
        {"write_at", [&] { return g.write_at("x", 1, 0) == -1; }, 2},
        {"read_block", [&] { return g.read_block(40, buffer) == -1; }, 2},
        {"append_block", [&] { return g.append_block(buffer) == -1; }, 2},
        {"create_element", [&] { return !g.create_element("y", SDE_SENSOR, nullptr, nullptr); }, 4},
        {"set_element_name", [&] { return g.set_element_name(x.get(), "z") == -1; }, 2},
        {"set_element_kind", [&] { return g.set_element_kind(x.get(), SDE_PROBE) == -1; }, 3},
        {"remove_element", [&] { return g.remove_element(x.get()) == -1; }, 3},
        {"read_data", [&] { return !g.read_data(40); }, 3},
    };
    for (auto const& c : cases) {
        sd_test::hook_counter hooks;
        EXPECT_TRUE(c.fails()) << c.what;
        EXPECT_EQ(hooks.calls(), c.hooks) << c.what;
    }
    // A rename that can't read the stored size changes nothing; a new kind is
    // taken in memory before the write is refused; the failed create used an iid.
    EXPECT_EQ(x->name, "x");
    EXPECT_EQ(x->kind, SDE_PROBE);
    EXPECT_EQ(g.last_iid, 16);
    EXPECT_EQ(sd_test::read_file(path), b);
}
