// The data block store: the payload bytes of a flushed block, the flush
// threshold, the order of the flush at close, rewrites in place and moved,
// and the decoding of damaged blocks.
#include "sd_stdio_file.h"
#include "sd_stdio_value_iterator.h"
#include "test_support.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

using sd_test::get;

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

bytes values_of(sd_sequence const& s)
{
    auto const& v = dynamic_cast<sd_value_sequence const&>(s).values;
    return bytes(v.data(), v.data() + v.size());
}

} // namespace

TEST(DataBlocks, PendingValuesGoOutAtCloseInIidOrderAsTheDocumentedPayload)
{
    std::string const path = sd_test::temp_path("payload.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto x = f.create_element("x", SDE_OUTPUT, SD_INT32, nullptr); // 14, record at 40
        auto y = f.create_element("y", SDE_INPUT, SD_INT64, nullptr);  // 15, record at 94
        // Empty runs are left out of the payload.
        ASSERT_EQ(f.append_sequence(y.get(), new sd_none_sequence(0)), 0);
        ASSERT_EQ(f.append_sequence(y.get(), new sd_value_sequence(SD_INT64, nullptr, 0, 0, 2)), 0);
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(f.append_raw_value(y.get(), nullptr), 0);
        int const one_two[] = {1, 2};
        for (int i = 0; i < 5; ++i)
            ASSERT_EQ(f.append_raw_value(x.get(), i < 2 ? &one_two[i] : nullptr), 0);
        EXPECT_EQ(f.find_element_block_by_iid(14)->first_data_block_pos, -1); // pending until close
    }
    bytes const d = sd_test::read_file(path);
    long const of_y = get<long>(d, 94 + 20);
    EXPECT_EQ(get<long>(d, 40 + 20), 148);
    EXPECT_EQ(get<long>(d, 40 + 28), 148);
    EXPECT_EQ(get<unsigned int>(d, 148), of_y - 148);
    bytes const head = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                        0xFF, 0xFF, 0xFF, 0xFF, 0x0E, 0,    0,    0,    0x2E, 0,    0,    0};
    EXPECT_EQ(bytes(d.begin() + 152, d.begin() + 176), head);
    bytes const expected = {0x02, 0, 0, 0, 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0, 0, 0x08, 0, 0,
                            0,    0, 0, 0, 0,    0x01, 0, 0, 0, 0x02, 0, 0, 0, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(payload_at(d, 148), expected);
    EXPECT_EQ(payload_at(d, of_y), bytes({1, 0, 0, 0, 1, 0xE8, 0x03, 0, 0, 0, 0, 0, 0}));

    auto const block = sd_stdio_file(path.c_str(), false).read_data(148);
    ASSERT_TRUE(block);
    auto const& list = block->sequences.list;
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(std::make_tuple(list.front()->count, list.front()->repeat_factor, values_of(*list.front())),
              std::make_tuple(2ul, 1ul, bytes{1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(std::make_tuple(list.back()->klass(), list.back()->count), std::make_tuple(int(SD_SEQUENCE_NONE), 3ul));
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
    auto file = [&] { return std::fflush(f.stream), sd_test::read_file(path); };
    bytes d = file();
    unsigned int const b1_size = get<unsigned int>(d, b1);

    auto one = f.read_data(b1);
    one->sequences.list.clear();
    ASSERT_EQ(f.update_data_block(one.get()), 0);
    d = file();
    EXPECT_EQ(one->pos, b1);
    EXPECT_LT(get<unsigned int>(d, b1), b1_size);
    EXPECT_EQ(get<long>(d, b1 + 12), b2);
    EXPECT_TRUE(f.read_data(b1)->sequences.list.empty());

    // Grown by 3000 bytes of noise, a block no longer fits its place.
    bytes noise(3000);
    for (unsigned long i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<unsigned char>(i * i * 2654435761u >> 13);
    auto grow_and_update = [&](long pos) {
        auto blk = f.read_data(pos);
        blk->sequences.append(new sd_value_sequence(SD_INT32, noise.data(), noise.size(), 750, 1));
        long const end = static_cast<long>(d.size());
        EXPECT_EQ(f.update_data_block(blk.get()), 0);
        EXPECT_EQ(blk->pos, end);
        d = file();
        return end;
    };
    // The element's last block moves: the old copy is linked to the new one.
    long const end1 = grow_and_update(b2);
    EXPECT_EQ(get<long>(d, b1 + 12), b2);
    EXPECT_EQ(get<long>(d, b2 + 12), end1);
    EXPECT_EQ(get<long>(d, 40 + 28), end1);
    EXPECT_EQ(eb->last_data_block_pos, end1);
    // The first block moves: the head follows it, and its successor gets the
    // new position over its very first bytes.
    long const end2 = grow_and_update(b1);
    EXPECT_EQ(get<long>(d, 40 + 20), end2);
    EXPECT_EQ(get<long>(d, b2), end2);
    EXPECT_EQ(get<long>(d, 40 + 28), end1);

    // The file as the moves left it opens again: the head reaches the moved
    // first block, whose values read back; the damaged successor ends the walk.
    std::string const moved = sd_test::temp_path("rewrite_moved.sd");
    sd_test::write_file(moved, d);
    {
        sd_stdio_file g(moved.c_str(), false);
        ASSERT_TRUE(g.is_open());
        auto const x = g.find_root_element("x");
        ASSERT_TRUE(x);
        EXPECT_EQ(g.find_element_block_by_iid(x->iid)->first_data_block_pos, end2);
        std::unique_ptr<sd_value_iterator> it(g.create_value_iterator(x.get(), nullptr));
        ASSERT_TRUE(it);
        std::vector<int> got(750, -1);
        std::vector<unsigned char> none(750, 1);
        ASSERT_EQ(it->get_raw_values(750, got.data(), none.data()), 750u);
        EXPECT_EQ(std::memcmp(got.data(), noise.data(), noise.size()), 0);
        EXPECT_EQ(none, std::vector<unsigned char>(750, 0));
        EXPECT_EQ(g.close(), 0);
    }

    // A new type forgets the chain; the file keeps its bytes.
    ASSERT_EQ(f.set_element_type(e.get(), SD_INT32), 0);
    bytes const after = file();
    EXPECT_EQ(after.size(), d.size());
    EXPECT_EQ(get<long>(after, 40 + 20), -1);
    EXPECT_EQ(get<long>(after, 40 + 28), -1);

    // Closed and opened again, the file still reads: the element and the
    // values appended after the cut chain.
    int const nine = 9;
    ASSERT_EQ(f.append_raw_value(e.get(), &nine), 0);
    ASSERT_EQ(f.close(), 0);
    sd_stdio_file g(path.c_str(), false);
    ASSERT_TRUE(g.is_open());
    auto const x = g.find_root_element("x");
    ASSERT_TRUE(x);
    std::unique_ptr<sd_value_iterator> it(g.create_value_iterator(x.get(), nullptr));
    ASSERT_TRUE(it);
    int v = -1;
    unsigned char none = 1, last = 0;
    ASSERT_EQ(it->get_raw_value(&v, &none, &last), 0);
    EXPECT_EQ(std::make_tuple(v, int(none), int(last)), std::make_tuple(9, 0, 1));
}

TEST(DataBlocks, DamagedBlocksReadAsNothingWithoutReadingPastThePayload)
{
    std::string const path = sd_test::temp_path("damaged.sd");
    sd_stdio_file(path.c_str(), true).create_element("x", SDE_OUTPUT, SD_INT32, nullptr);
    bytes const base = sd_test::read_file(path);
    // One record: a value group (tag 2) of one value, repeat 1; data_size may
    // claim more than follows.
    auto group = [](unsigned char data_size, unsigned char tag = 2) {
        return bytes{1, 0, 0, 0, tag, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                     0, 0, 0, 0, data_size, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0};
    };
    // The deltas are from the true uncompressed size and block_size to the
    // stated ones; `values`: bytes of the group read back, -1: refused.
    struct {
        char const* what; bytes payload; int iid; long usize_delta, size_delta, values; int hooks;
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
        SCOPED_TRACE(c.what);
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
        EXPECT_EQ(hooks.calls(), c.hooks);
        ASSERT_EQ(bool(block), c.values >= 0);
        if (block) {
            bytes expected(c.values, 0);
            expected[0] = 7;
            EXPECT_EQ(values_of(*block->sequences.list.front()), expected);
        }
    }
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sd_stdio_file(path.c_str(), false).read_data(-1));
    EXPECT_EQ(hooks.calls(), 1);
}

TEST(DataBlocks, AppendedSequencesMustBeOfTheElementsOwnTypeObject)
{
    sd_stdio_file f(sd_test::temp_path("sequence.sd").c_str(), true);
    auto struct_of_int32 = [] {
        auto t = std::make_shared<sd_struct_type>(-1, 4);
        t->add_field("v", SD_INT32, 0);
        return t;
    };
    auto e = f.create_element("s", SDE_OUTPUT, struct_of_int32(), nullptr);
    // Even a type of the same shape is refused; the sequence stays the caller's.
    for (sd_type_ptr const& wrong : {sd_type_ptr(SD_INT32), sd_type_ptr(struct_of_int32())}) {
        std::unique_ptr<sd_sequence> seq(new sd_value_sequence(wrong, "abcd", 4, 1, 1));
        sd_test::hook_counter hooks;
        EXPECT_EQ(f.append_sequence(e.get(), seq.get()), -1);
        EXPECT_EQ(hooks.calls(), 1);
    }
    EXPECT_TRUE(f.find_element_block_by_iid(e->iid)->data_block->sequences.list.empty());
}
