// The data block store: the payload bytes of a flushed block, the flush
// threshold, the order of the flush at close, rewrites in place and moved,
// and the decoding of damaged blocks.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

template <class T>
T get(bytes const& b, unsigned long at)
{
    T v;
    std::memcpy(&v, &b.at(at + sizeof(T) - 1) + 1 - sizeof(T), sizeof(T));
    return v;
}

template <class T>
void add(bytes& b, T v)
{
    b.insert(b.end(), reinterpret_cast<unsigned char*>(&v), reinterpret_cast<unsigned char*>(&v) + sizeof v);
}

// The payload of the data block at `pos`, inflated independently of the library.
bytes payload_at(bytes const& d, long pos)
{
    uLongf n = get<unsigned int>(d, pos + 24);
    bytes out(n + 1);
    EXPECT_EQ(uncompress(out.data(), &n, &d.at(pos + 28), get<unsigned int>(d, pos) - 28), Z_OK);
    out.resize(n);
    return out;
}

bytes file_bytes(sd_stdio_file const& f, std::string const& path)
{
    std::fflush(f.stream);
    return sd_test::read_file(path);
}

bytes values_of(sd_sequence const& s)
{
    auto const& v = dynamic_cast<sd_value_sequence const&>(s).values;
    return bytes(v.data(), v.data() + v.size());
}

} // namespace

TEST(DataBlocks, TwoValuesAndThreeAbsentGiveTheDocumentedPayload)
{
    std::string const path = sd_test::temp_path("payload.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto e = f.create_element("x", SDE_OUTPUT, SD_INT32, nullptr); // record at 40
        int const one = 1, two = 2;
        for (void const* raw : {static_cast<void const*>(&one), static_cast<void const*>(&two)})
            ASSERT_EQ(f.append_raw_value(e.get(), raw), 0);
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(f.append_raw_value(e.get(), nullptr), 0);
        EXPECT_EQ(f.find_element_block_by_iid(14)->first_data_block_pos, -1); // pending until close
    }
    bytes const d = sd_test::read_file(path);
    EXPECT_EQ(get<long>(d, 40 + 20), 94);
    EXPECT_EQ(get<long>(d, 40 + 28), 94);
    EXPECT_EQ(get<unsigned int>(d, 94), d.size() - 94);
    bytes const head = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                        0xFF, 0xFF, 0xFF, 0xFF, 0x0E, 0,    0,    0,    0x2E, 0,    0,    0};
    EXPECT_EQ(bytes(d.begin() + 98, d.begin() + 122), head);
    bytes const expected = {0x02, 0, 0, 0, 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0, 0, 0x08, 0, 0,
                            0,    0, 0, 0, 0,    0x01, 0, 0, 0, 0x02, 0, 0, 0, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(payload_at(d, 94), expected);

    auto const block = sd_stdio_file(path.c_str(), false).read_data(94);
    ASSERT_TRUE(block);
    ASSERT_EQ(block->sequences.list.size(), 2u);
    auto const& first = *block->sequences.list.front();
    EXPECT_EQ(first.count, 2u);
    EXPECT_EQ(first.repeat_factor, 1u);
    EXPECT_EQ(values_of(first), bytes({1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(block->sequences.list.back()->klass(), SD_SEQUENCE_NONE);
    EXPECT_EQ(block->sequences.list.back()->count, 3u);
}

TEST(DataBlocks, FlushComesWithTheFirstAppendPastOneMebibyte)
{
    std::string const path = sd_test::temp_path("flush.sd");
    long first = -1;
    {
        sd_stdio_file f(path.c_str(), true);
        auto e = f.create_element("u", SDE_OUTPUT, SD_UINT8, nullptr);
        auto const eb = f.find_element_block_by_iid(e->iid);
        unsigned char v = 0;
        for (int i = 0; i < 1048551; ++i, ++v)
            ASSERT_EQ(f.append_raw_value(e.get(), &v), 0);
        EXPECT_EQ(eb->data_block->sequences.mem_size(), 1048576u);
        EXPECT_EQ(eb->first_data_block_pos, -1);
        ASSERT_EQ(f.append_raw_value(e.get(), &v), 0);
        first = eb->first_data_block_pos;
        EXPECT_NE(first, -1);
        EXPECT_EQ(eb->last_data_block_pos, first);
        EXPECT_EQ(eb->data_block->pos, first); // the tail keeps the block it last wrote
        EXPECT_EQ(eb->data_block->sequences.mem_size(), 25u);
    }
    // The emptied value run left behind goes out at close as a block of no records.
    bytes const d = sd_test::read_file(path);
    long const second = get<long>(d, first + 12);
    EXPECT_EQ(get<long>(d, second + 4), first);
    EXPECT_EQ(get<long>(d, 40 + 28), second);
    EXPECT_EQ(payload_at(d, second), bytes(4, 0));
    bytes const stored = payload_at(d, first);
    EXPECT_EQ(get<unsigned int>(stored, 0), 1u);
    EXPECT_EQ(get<unsigned long>(stored, 13), 1048552u); // count
    EXPECT_EQ(get<unsigned long>(stored, 21), 1048552u); // data size
}

TEST(DataBlocks, PendingValuesGoOutInIidOrderAndEmptyRunsAreLeftOut)
{
    std::string const path = sd_test::temp_path("order.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto a = f.create_element("a", SDE_INPUT, SD_INT64, nullptr); // 14 at 40
        auto b = f.create_element("b", SDE_INPUT, SD_INT64, nullptr); // 15 at 94
        ASSERT_EQ(f.append_sequence(b.get(), new sd_none_sequence(0)), 0);
        ASSERT_EQ(f.append_sequence(b.get(), new sd_value_sequence(SD_INT64, nullptr, 0, 0, 2)), 0);
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(f.append_raw_value(b.get(), nullptr), 0);
        long const v = 5;
        ASSERT_EQ(f.append_raw_value(a.get(), &v), 0);
    }
    bytes const d = sd_test::read_file(path);
    long const of_a = get<long>(d, 40 + 20), of_b = get<long>(d, 94 + 20);
    EXPECT_EQ(of_a, 148);
    EXPECT_GT(of_b, of_a);
    EXPECT_EQ(payload_at(d, of_b), bytes({1, 0, 0, 0, 1, 0xE8, 0x03, 0, 0, 0, 0, 0, 0}));
}

TEST(DataBlocks, RewritesStayInPlaceWhenSmallerAndRelinkAsStoredWhenMoved)
{
    std::string const path = sd_test::temp_path("rewrite.sd");
    sd_stdio_file f(path.c_str(), true);
    auto e = f.create_element("x", SDE_OUTPUT, SD_INT32, nullptr);
    auto const eb = f.find_element_block_by_iid(e->iid);
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(f.append_raw_value(e.get(), &i), 0);
        if (i % 4 == 3) {
            ASSERT_EQ(f.append_data_block(eb->data_block.get()), 0);
        }
    }
    long const b1 = eb->first_data_block_pos, b2 = eb->last_data_block_pos;
    bytes d = file_bytes(f, path);
    unsigned int const b1_size = get<unsigned int>(d, b1);

    auto one = f.read_data(b1);
    one->sequences.list.clear();
    ASSERT_EQ(f.update_data_block(one.get()), 0);
    d = file_bytes(f, path);
    EXPECT_EQ(one->pos, b1);
    EXPECT_LT(get<unsigned int>(d, b1), b1_size);
    EXPECT_EQ(get<long>(d, b1 + 12), b2);
    EXPECT_TRUE(f.read_data(b1)->sequences.list.empty());

    std::mt19937 random(7);
    bytes noise(3000);
    for (auto& b : noise)
        b = static_cast<unsigned char>(random());
    auto grow = [&](sd_data_block& blk) {
        blk.sequences.append(new sd_value_sequence(SD_INT32, noise.data(), noise.size(), 750, 1));
    };
    // The element's last block moves: the old copy is linked to the new one.
    auto two = f.read_data(b2);
    grow(*two);
    long const end1 = static_cast<long>(d.size());
    ASSERT_EQ(f.update_data_block(two.get()), 0);
    d = file_bytes(f, path);
    EXPECT_EQ(two->pos, end1);
    EXPECT_EQ(get<long>(d, b1 + 12), b2);
    EXPECT_EQ(get<long>(d, b2 + 12), end1);
    EXPECT_EQ(get<long>(d, 40 + 28), end1);
    EXPECT_EQ(eb->last_data_block_pos, end1);

    // The first block moves: the head follows it, and its successor gets the
    // new position over its very first bytes.
    one = f.read_data(b1);
    grow(*one);
    long const end2 = static_cast<long>(d.size());
    ASSERT_EQ(f.update_data_block(one.get()), 0);
    d = file_bytes(f, path);
    EXPECT_EQ(get<long>(d, 40 + 20), end2);
    EXPECT_EQ(get<long>(d, b2), end2);
    EXPECT_EQ(get<long>(d, 40 + 28), end1);

    // A new type forgets the chain; the file keeps its bytes.
    ASSERT_EQ(f.set_element_type(e.get(), SD_INT32), 0);
    bytes const after = file_bytes(f, path);
    EXPECT_EQ(after.size(), d.size());
    EXPECT_EQ(get<long>(after, 40 + 20), -1);
    EXPECT_EQ(get<long>(after, 40 + 28), -1);
}

TEST(DataBlocks, DamagedBlocksReadAsNothingWithoutReadingPastThePayload)
{
    std::string const path = sd_test::temp_path("damaged.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        ASSERT_TRUE(f.create_element("x", SDE_OUTPUT, SD_INT32, nullptr));
    }
    bytes const base = sd_test::read_file(path);
    // One value group of one value; data_size may claim more than follows.
    auto group = [](unsigned long data_size, unsigned char tag = 2) {
        bytes r = {1, 0, 0, 0, tag};
        add(r, 1UL);
        add(r, 1UL);
        add(r, data_size);
        r.insert(r.end(), {7, 0, 0, 0});
        return r;
    };
    struct {
        char const* what;
        bytes payload;
        int iid;
        long usize_delta; // stated uncompressed size minus the true one
        long size_delta;  // stated block_size minus the true one
        long values;      // bytes of the group read back, -1: refused
        int hooks;
    } const cases[] = {
        {"intact", group(4), 14, 0, 0, 4, 0},
        {"data past the payload", group(100), 14, 0, 0, 100, 0},
        {"stated size far too large", group(4), 14, 0xFFFF0000L, 0, 4, 0},
        {"tag 3", group(4, 3), 14, 0, 0, -1, 1},
        {"more records claimed", {2, 0, 0, 0, 1, 5, 0, 0, 0, 0, 0, 0, 0}, 14, 0, 0, -1, 1},
        {"unknown element", group(4), 99, 0, 0, -1, 1},
        {"stated size too small", group(4), 14, -8, 0, -1, 2},
        {"block_size below 4", group(4), 14, 0, -1000, -1, 1},
        {"block_size past the file", group(4), 14, 0, 1, -1, 5},
    };
    for (auto const& c : cases) {
        bytes stream(compressBound(c.payload.size()));
        uLongf n = stream.size();
        ASSERT_EQ(compress2(stream.data(), &n, c.payload.data(), c.payload.size(), 9), Z_OK);
        bytes d = base;
        long const size = 28 + static_cast<long>(n) + c.size_delta;
        add(d, static_cast<unsigned int>(size < 0 ? 3 : size));
        d.insert(d.end(), 16, 0xFF);
        add(d, c.iid);
        add(d, static_cast<unsigned int>(c.payload.size() + c.usize_delta));
        d.insert(d.end(), stream.begin(), stream.begin() + n);
        sd_test::write_file(path, d);
        sd_stdio_file f(path.c_str(), false);
        sd_test::hook_counter hooks;
        auto const block = f.read_data(static_cast<long>(base.size()));
        EXPECT_EQ(hooks.calls(), c.hooks) << c.what;
        if (c.values < 0) {
            EXPECT_FALSE(block) << c.what;
            continue;
        }
        ASSERT_TRUE(block) << c.what;
        bytes expected(c.values, 0);
        expected[0] = 7;
        EXPECT_EQ(values_of(*block->sequences.list.front()), expected) << c.what;
    }
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sd_stdio_file(path.c_str(), false).read_data(-1));
    EXPECT_EQ(hooks.calls(), 1);
}

TEST(DataBlocks, AppendedSequencesMustBeOfTheElementsOwnType)
{
    std::string const path = sd_test::temp_path("sequence.sd");
    sd_stdio_file f(path.c_str(), true);
    auto const st = std::make_shared<sd_struct_type>(-1, 4);
    st->add_field("v", SD_INT32, 0);
    auto const same_shape = std::make_shared<sd_struct_type>(-1, 4);
    same_shape->add_field("v", SD_INT32, 0);
    auto e = f.create_element("s", SDE_OUTPUT, st, nullptr);
    auto const& list = f.find_element_block_by_iid(e->iid)->data_block->sequences.list;
    for (sd_type_ptr const& wrong : {sd_type_ptr(SD_INT32), sd_type_ptr(same_shape)}) {
        auto* seq = new sd_value_sequence(wrong, "abcd", 4, 1, 1);
        sd_test::hook_counter hooks;
        EXPECT_EQ(f.append_sequence(e.get(), seq), -1);
        EXPECT_EQ(hooks.calls(), 1);
        delete seq; // refused, so still ours
    }
    EXPECT_TRUE(list.empty());
    ASSERT_EQ(f.append_sequence(e.get(), new sd_value_sequence(st, "abcd", 4, 1, 3)), 0);
    ASSERT_EQ(f.append_sequence(e.get(), new sd_none_sequence(2)), 0);
    ASSERT_EQ(f.append_sequence(e.get(), new sd_none_sequence(1)), 0); // not merged
    EXPECT_EQ(list.size(), 3u);
}
