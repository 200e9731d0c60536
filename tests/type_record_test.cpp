// Type records: the exact bytes written for a user type, the way back from
// bytes to a type object for every class, and the refusals of damaged
// records with their hook counts.
#include "sd_stdio_file.h"
#include "sd_type.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);
using bytes = std::vector<unsigned char>;

// The reader resolves iids through a file; a real one that holds one user
// type, pt with iid 14, serves. The records are made and read in memory.
class TypeRecords : public ::testing::Test {
protected:
    void SetUp() override
    {
        pt->add_field("x", SD_INT32, AUTO);
        ASSERT_TRUE(file.create_element("e", SDE_SIGNAL, pt, nullptr));
        ASSERT_EQ(pt->iid(), 14);
    }
    std::shared_ptr<sd_type_block> read(bytes const& b, long pos = 40) const
    {
        sd_buffer buf;
        buf.set(b.data(), b.size());
        return sd_deserialize_type(buf, pos, &file);
    }

    std::shared_ptr<sd_struct_type> pt = std::make_shared<sd_struct_type>(-1, AUTO);
    sd_stdio_file file{sd_test::temp_path("records.sd").c_str(), true};
};

bytes serialize(sd_type_ptr const& t, long prev = -1, long next = -1)
{
    sd_type_block block(t, -1, prev, next);
    sd_buffer buf;
    sd_serialize_type(&block, buf);
    return bytes(buf.data(), buf.data() + buf.size());
}

// Hand-assembled records for the reader: frame with links -1, iid, klass.
struct record {
    bytes b;
    record(std::int32_t iid, std::uint8_t klass) { u32(0).i64(-1).i64(-1).i32(iid).u8(klass); }
    template <class T> record& put(T v)
    {
        auto p = reinterpret_cast<unsigned char const*>(&v);
        return raw(bytes(p, p + sizeof v));
    }
    record& u8(std::uint8_t v) { return put(v); }
    record& u32(std::uint32_t v) { return put(v); }
    record& u64(std::uint64_t v) { return put(v); }
    record& i32(std::int32_t v) { return put(v); }
    record& i64(std::int64_t v) { return put(v); }
    record& str(std::string const& s) { return u32(std::uint32_t(s.size())).raw(bytes(s.begin(), s.end())); }
    record& raw(bytes const& tail) { b.insert(b.end(), tail.begin(), tail.end()); return *this; }
    bytes done(std::uint32_t size_delta = 0) // block_size = length + delta
    {
        auto size = static_cast<std::uint32_t>(b.size() + size_delta);
        std::memcpy(b.data(), &size, 4);
        return b;
    }
};

bytes cat(std::initializer_list<bytes> parts)
{
    bytes out;
    for (auto const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(TypeRecords, LiteralBytesOfEachClassBothWays)
{
    auto arr = std::make_shared<sd_array_type>(14, SD_INT32, std::vector<unsigned long>{3});
    arr->set_name("v");
    auto st = std::make_shared<sd_struct_type>(15, 8);
    st->add_field("x", SD_INT32, 4);
    auto en = std::make_shared<sd_enum_type>(16, SD_INT8);
    en->add_value("a", -2L);
    auto va = std::make_shared<sd_variant_type>(17, AUTO); // computed size comes back fixed
    va->add_constructor("n", pt, 8, 3, 0); // name before offsets, unlike a struct field
    va->add_constructor("e", nullptr, AUTO, -1, AUTO);
    // The callbacks stay in this process: the record has the flag only.
    auto im = std::make_shared<sd_imported_type>(
        18, 5, [](void const*) -> unsigned long long { return 3; }, [](void const*, unsigned char*) {});
    im->set_name("im");

    bytes const NONE(8, 0xFF), U64_0(8, 0), U32_0(4, 0), U32_1 = {1, 0, 0, 0}, POS_40 = {40, 0, 0, 0, 0, 0, 0, 0};
    bytes const array43 = cat({{0x2B, 0, 0, 0}, NONE, NONE, {14, 0, 0, 0}, {2}, // head
                               {1}, {3, 0, 0, 0, 0, 0, 0, 0}, {6, 0, 0, 0},     // dims 3, int32
                               U32_1, {'v'}});                                  // name
    bytes const struct58 = cat({{0x3A, 0, 0, 0}, POS_40, NONE, {15, 0, 0, 0}, {1},
                                {8, 0, 0, 0, 0, 0, 0, 0}, U32_1,             // size 8, one field
                                {4, 0, 0, 0, 0, 0, 0, 0}, U32_1, {'x'},      // offset 4, x
                                {6, 0, 0, 0}, U32_0});                       // int32, no name
    bytes const enum50 = cat({{0x32, 0, 0, 0}, NONE, NONE, {16, 0, 0, 0}, {3},
                              {4, 0, 0, 0}, U32_1,                           // int8, one value
                              U32_1, {'a'}, {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, U32_0});
    bytes const variant99 = cat({{0x63, 0, 0, 0}, NONE, POS_40, {17, 0, 0, 0}, {4},
                                 {4, 0, 0, 0, 0, 0, 0, 0}, {2, 0, 0, 0},     // size 4, two
                                 U32_1, {'n'}, {8, 0, 0, 0, 0, 0, 0, 0},     // name, tag offset
                                 {3, 0, 0, 0}, U64_0, {14, 0, 0, 0},         // tag, value offset, pt
                                 U32_1, {'e'}, U64_0, {4, 0, 0, 0},          // defaults filled in
                                 {4, 0, 0, 0, 0, 0, 0, 0}, {0xFF, 0xFF, 0xFF, 0xFF}, U32_0}); // no payload
    bytes const imported40 = cat({{0x28, 0, 0, 0}, NONE, NONE, {18, 0, 0, 0}, {5},
                                  {5, 0, 0, 0, 0, 0, 0, 0}, {1}, {2, 0, 0, 0}, {'i', 'm'}});
    struct row { sd_type_ptr type; long prev, next; bytes rec; };
    row const rows[] = {{arr, -1, -1, array43}, {st, 40, -1, struct58}, {en, -1, -1, enum50},
                        {va, -1, 40, variant99}, {im, -1, -1, imported40}};
    std::vector<sd_type_ptr> back;
    for (row const& r : rows) {
        SCOPED_TRACE(r.type->to_string());
        EXPECT_EQ(serialize(r.type, r.prev, r.next), r.rec);
        auto block = read(r.rec, 300);
        ASSERT_TRUE(block);
        sd_type_ptr t = block->type;
        EXPECT_EQ((std::vector<long>{block->pos, block->prev_block_pos, block->next_block_pos, t->klass(), t->iid()}),
                  (std::vector<long>{300, r.prev, r.next, r.type->klass(), r.type->iid()}));
        EXPECT_EQ(t->mem_size(), r.type->mem_size());
        EXPECT_EQ(t->name(), r.type->name());
        EXPECT_EQ(t->to_string(), r.type->to_string());
        back.push_back(t);
    }
    auto rv = std::static_pointer_cast<sd_variant_type>(back[3]);
    auto const& c = *rv->constructors[0];
    EXPECT_EQ((std::vector<long>{long(c.tag_offset), c.tag_value, long(c.value_offset)}), (std::vector<long>{8, 3, 0}));
    EXPECT_EQ(c.value_type, pt); // resolved through the file
    EXPECT_FALSE(rv->constructors[1]->value_type);
    EXPECT_TRUE(rv->fixed_size);
    auto ri = std::static_pointer_cast<sd_imported_type>(back[4]);
    EXPECT_TRUE(ri->is_variable_size);
    EXPECT_FALSE(ri->size_of || ri->write_to);
    EXPECT_EQ(serialize(std::make_shared<sd_imported_type>(19, 5)).at(33), 0); // the flag of a fixed size
}

TEST_F(TypeRecords, HandMadeRecords)
{
    auto imported = [](std::uint8_t flag, bytes const& tail) { return record(15, 5).u64(4).u8(flag).raw(tail).done(); };
    // text null: refused, with that many hook calls
    struct row { char const* what; bytes rec; long hooks; char const* text = nullptr, *name = nullptr; };
    std::vector<row> const rows = {
        {"block_size one too large", record(15, 5).u64(4).u8(0).str("").done(1), 1},
        {"klass 0", record(15, 0).u64(4).str("").done(), 0},
        {"klass 6", record(15, 6).u64(4).str("").done(), 0},
        {"enum base is a user type", record(15, 3).i32(14).u32(0).done(), 1},
        {"struct field of unknown iid", record(15, 1).u64(4).u32(1).u64(0).str("f").i32(99).done(), 1},
        {"array base of unknown iid", record(15, 2).u8(1).u64(2).i32(15).done(), 1},
        {"variant payload of iid -2", record(15, 4).u64(8).u32(1).str("c").u64(0).i32(0).u64(4).i32(-2).done(), 1},
        {"imported without body", record(15, 5).done(), 0},
        {"fields missing", record(15, 1).u64(4).u32(3).u64(0).str("f").i32(6).done(), 0},
        {"name bytes beyond the record", imported(0, {5, 0, 0, 0}), 0},
        {"empty buffer", bytes{}, 0},
        // The one tolerance: a record may end right behind its class body.
        {"no name field", imported(0, {}), 0, "<imported>", ""},
        {"three stray bytes", imported(0, {'a', 'b', 'c'}), 0, "<imported>", ""},
        {"name of length 0", imported(0, {0, 0, 0, 0}), 0, "<imported>", ""},
        {"name cut at a zero byte", imported(0, {3, 0, 0, 0, 'a', 0, 'b'}), 0, "<imported>", "a"},
        {"any non-zero flag is variable", imported(7, {}), 0, "<variable size imported>", ""},
        {"enum of bool", record(15, 3).i32(3).u32(1).str("t").i64(1).done(), 0, "enum {t:1}", ""},
        {"struct without fields", record(15, 1).u64(24).u32(0).str("s").done(), 0, "struct {}", "s"},
    };
    for (row const& r : rows) {
        SCOPED_TRACE(r.what);
        sd_test::hook_counter hooks;
        auto block = read(r.rec);
        EXPECT_EQ(hooks.calls(), r.hooks);
        ASSERT_EQ(bool(block), r.text != nullptr);
        if (!block)
            continue;
        EXPECT_EQ(block->type->to_string(), r.text);
        EXPECT_EQ(block->type->name(), r.name);
    }
    EXPECT_EQ(read(rows.back().rec)->type->mem_size(), 24u);
    EXPECT_EQ(std::static_pointer_cast<sd_enum_type>(read(rows[16].rec)->type)->base_type, SD_BOOL);
}

} // namespace
