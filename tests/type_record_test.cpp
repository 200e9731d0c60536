// Type records: the exact bytes written for a user type, the way back from
// bytes to a type object for every class, and the refusals of damaged
// records with their hook counts.
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

// Resolves iids like a real file, through user_types(); nothing else is used.
class fake_file : public sd_file {
public:
    sd_type_map types;
    sd_type_map const& user_types() const override { return types; }
    unsigned int format_version() const override { return 0; }
    char const* format_version_str() const override { return ""; }
    bool is_open() const override { return true; }
    int close() override { return 0; }
    sd_element_ptr create_element(std::string const&, sde_tag_kind, sd_type_ptr const&,
                                  sd_element_ptr const&) override { return nullptr; }
    sd_element_list const* root_elements() const override { return nullptr; }
    sd_element_map const& all_elements() const override { return elements_; }
    int set_element_name(sd_element*, std::string const&) override { return -1; }
    int set_element_type(sd_element*, sd_type_ptr const&) override { return -1; }
    int set_element_kind(sd_element*, sde_tag_kind) override { return -1; }
    int remove_element(sd_element*) override { return -1; }
    int append_raw_value(sd_element const*, void const*) override { return -1; }
    sd_value_iterator* create_value_iterator(sd_element const*, sd_type_ptr const&) const override
    {
        return nullptr;
    }
    sd_value_iterator* create_value_iterator(char const*, sd_type_ptr const&) const override
    {
        return nullptr;
    }
    int append_sequence(sd_element const*, sd_sequence*) override { return -1; }
    sd_sequence_iterator* create_sequence_iterator(sd_element const*) const override { return nullptr; }

private:
    sd_element_map elements_;
};

bytes serialize(sd_type_ptr const& t, long prev = -1, long next = -1)
{
    sd_type_block block(t, -1, prev, next);
    sd_buffer buf;
    sd_serialize_type(&block, buf);
    return bytes(buf.data(), buf.data() + buf.size());
}

std::shared_ptr<sd_type_block> deserialize(bytes const& b, fake_file const& file, long pos = 40)
{
    sd_buffer buf;
    buf.set(b.data(), b.size());
    return sd_deserialize_type(buf, pos, &file);
}

// Hand-assembled records for the reader: frame with links -1, iid, klass.
struct record {
    bytes b;
    record(std::int32_t iid, std::uint8_t klass) { u32(0).i64(-1).i64(-1).i32(iid).u8(klass); }
    template <class T> record& put(T v)
    {
        auto const* p = reinterpret_cast<unsigned char const*>(&v);
        b.insert(b.end(), p, p + sizeof v);
        return *this;
    }
    record& u8(std::uint8_t v) { return put(v); }
    record& u32(std::uint32_t v) { return put(v); }
    record& u64(std::uint64_t v) { return put(v); }
    record& i32(std::int32_t v) { return put(v); }
    record& i64(std::int64_t v) { return put(v); }
    record& str(std::string const& s)
    {
        u32(static_cast<std::uint32_t>(s.size()));
        b.insert(b.end(), s.begin(), s.end());
        return *this;
    }
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

bytes const NONE = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
bytes const U64_0 = {0, 0, 0, 0, 0, 0, 0, 0};

TEST(TypeRecords, LiteralBytesOfEachClass)
{
    auto arr = std::make_shared<sd_array_type>(14, SD_INT32, std::vector<unsigned long>{3});
    arr->set_name("v");
    auto st = std::make_shared<sd_struct_type>(15, 8);
    st->add_field("x", SD_INT32, 4);
    auto en = std::make_shared<sd_enum_type>(16, SD_INT8);
    en->add_value("a", -2L);
    auto va = std::make_shared<sd_variant_type>(17, 12);
    va->add_constructor("n", nullptr, 8, 3, 0); // name before offsets, unlike a struct field
    auto im = std::make_shared<sd_imported_type>(18, 5, nullptr, nullptr);
    im->set_name("im");

    bytes const U32_1 = {1, 0, 0, 0};
    bytes const array43 = cat({{0x2B, 0, 0, 0}, NONE, NONE, {14, 0, 0, 0}, {2}, // head
                               {1}, {3, 0, 0, 0, 0, 0, 0, 0}, {6, 0, 0, 0},     // dims 3, int32
                               U32_1, {'v'}});                                  // name
    bytes const struct58 = cat({{0x3A, 0, 0, 0}, {0x28, 0, 0, 0, 0, 0, 0, 0}, NONE, {15, 0, 0, 0}, {1},
                                {8, 0, 0, 0, 0, 0, 0, 0}, U32_1,             // size 8, one field
                                {4, 0, 0, 0, 0, 0, 0, 0}, U32_1, {'x'},      // offset 4, x
                                {6, 0, 0, 0}, {0, 0, 0, 0}});                // int32, no name
    bytes const enum50 = cat({{0x32, 0, 0, 0}, NONE, NONE, {16, 0, 0, 0}, {3},
                              {4, 0, 0, 0}, U32_1,                           // int8, one value
                              U32_1, {'a'}, {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
                              {0, 0, 0, 0}});
    bytes const variant70 = cat({{0x46, 0, 0, 0}, NONE, NONE, {17, 0, 0, 0}, {4},
                                 {12, 0, 0, 0, 0, 0, 0, 0}, U32_1,           // size 12, one
                                 U32_1, {'n'}, {8, 0, 0, 0, 0, 0, 0, 0},     // name, tag offset
                                 {3, 0, 0, 0}, U64_0, {0xFF, 0xFF, 0xFF, 0xFF}, // tag, no payload
                                 {0, 0, 0, 0}});
    bytes const imported40 = cat({{0x28, 0, 0, 0}, NONE, NONE, {18, 0, 0, 0}, {5},
                                  {5, 0, 0, 0, 0, 0, 0, 0}, {1}, {2, 0, 0, 0}, {'i', 'm'}});
    EXPECT_EQ((std::vector<std::size_t>{array43.size(), struct58.size(), enum50.size(),
                                        variant70.size(), imported40.size()}),
              (std::vector<std::size_t>{43, 58, 50, 70, 40}));
    EXPECT_EQ(serialize(arr), array43);
    EXPECT_EQ(serialize(st, 40, -1), struct58);
    EXPECT_EQ(serialize(en), enum50);
    EXPECT_EQ(serialize(va), variant70);
    EXPECT_EQ(serialize(im), imported40);

    fake_file file;
    auto block = deserialize(array43, file, 40);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->pos, 40);
    auto a = std::dynamic_pointer_cast<sd_array_type>(block->type);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->iid(), 14);
    EXPECT_EQ(a->name(), "v");
    EXPECT_EQ(a->base_type, SD_INT32);
    EXPECT_EQ(a->dims, std::vector<unsigned long>{3});
}

TEST(TypeRecords, EveryClassRoundTrips)
{
    fake_file file;
    auto pt = std::make_shared<sd_struct_type>(14, AUTO);
    pt->add_field("x", SD_INT32, AUTO);
    file.types[14] = pt;

    auto st = std::make_shared<sd_struct_type>(20, AUTO); // computed size comes back fixed
    st->add_field("p", pt, 16);
    st->set_name("outer");
    auto en = std::make_shared<sd_enum_type>(22, SD_UINT16);
    en->add_value("lo", -3L);
    en->set_name("level");
    auto va = std::make_shared<sd_variant_type>(23, AUTO);
    va->add_constructor("none", nullptr, AUTO, -1, AUTO);
    va->add_constructor("pt", pt, 4, 9, 8);
    auto vsize = std::make_shared<sd_imported_type>(
        25, 16, [](void const*) -> unsigned long long { return 3; },
        [](void const*, unsigned char*) {});
    vsize->set_name("blob");
    auto arr = std::make_shared<sd_array_type>(21, pt, std::vector<unsigned long>{2, 5});
    auto fixed = std::make_shared<sd_imported_type>(24, 7);
    std::vector<sd_type_ptr> const all = {st, arr, en, va, fixed, vsize};

    for (sd_type_ptr const& t : all) {
        SCOPED_TRACE(t->to_string());
        auto block = deserialize(serialize(t, 100, 200), file, 300);
        ASSERT_TRUE(block);
        sd_type_ptr r = block->type;
        EXPECT_EQ(std::vector<long>({block->pos, block->prev_block_pos, block->next_block_pos}),
                  std::vector<long>({300, 100, 200}));
        EXPECT_EQ(r->klass(), t->klass());
        EXPECT_EQ(r->iid(), t->iid());
        EXPECT_EQ(r->name(), t->name());
        EXPECT_EQ(r->mem_size(), t->mem_size());
        EXPECT_EQ(r->to_string(), t->to_string());
        file.types[r->iid()] = r;
    }
    auto rs = std::dynamic_pointer_cast<sd_struct_type>(file.types[20]);
    EXPECT_TRUE(rs->fixed_size);
    EXPECT_EQ(rs->fields[0]->type, pt);
    EXPECT_EQ(std::dynamic_pointer_cast<sd_array_type>(file.types[21])->base_type, pt);
    auto rv = std::dynamic_pointer_cast<sd_variant_type>(file.types[23]);
    EXPECT_FALSE(rv->constructors[0]->value_type);
    auto const& c = *rv->constructors[1];
    EXPECT_EQ(c.value_type, pt);
    EXPECT_EQ(c.tag_offset, 4u);
    EXPECT_EQ(c.tag_value, 9);
    EXPECT_EQ(c.value_offset, 8u);
    auto ri = std::dynamic_pointer_cast<sd_imported_type>(file.types[25]);
    EXPECT_TRUE(ri->is_variable_size);
    EXPECT_EQ(ri->size_of, nullptr);
    EXPECT_EQ(ri->write_to, nullptr);
}

TEST(TypeRecords, DamagedRecordsAreRefused)
{
    fake_file file;
    file.types[14] = std::make_shared<sd_struct_type>(14, 4);
    struct row { char const* what; bytes rec; long hooks; };
    std::vector<row> const rows = {
        {"block_size one too large", record(15, 5).u64(4).u8(0).str("").done(1), 1},
        {"klass 0", record(15, 0).u64(4).str("").done(), 0},
        {"klass 6", record(15, 6).u64(4).str("").done(), 0},
        {"enum base is a user type", record(15, 3).i32(14).u32(0).done(), 1},
        {"struct field of unknown iid", record(15, 1).u64(4).u32(1).u64(0).str("f").i32(99).done(), 1},
        {"array base of unknown iid", record(15, 2).u8(1).u64(2).i32(15).done(), 1},
        {"variant payload of iid -2",
         record(15, 4).u64(8).u32(1).str("c").u64(0).i32(0).u64(4).i32(-2).done(), 1},
        {"imported without body", record(15, 5).done(), 0},
        {"fields missing", record(15, 1).u64(4).u32(3).u64(0).str("f").i32(6).done(), 0},
        {"name bytes beyond the record", record(15, 5).u64(4).u8(0).u32(5).done(), 0},
        {"empty buffer", bytes{}, 0},
    };
    for (row const& r : rows) {
        sd_test::hook_counter hooks;
        EXPECT_FALSE(deserialize(r.rec, file)) << r.what;
        EXPECT_EQ(hooks.calls(), r.hooks) << r.what;
    }
}

TEST(TypeRecords, TolerancesOfTheReader)
{
    fake_file file;
    auto imported = [](std::uint8_t flag, bytes const& tail) {
        return record(15, 5).u64(4).u8(flag).raw(tail).done();
    };
    struct row { char const* what; bytes rec; char const* name; char const* text; };
    std::vector<row> const rows = {
        {"no name field", imported(0, {}), "", "<imported>"},
        {"three stray bytes", imported(0, {'a', 'b', 'c'}), "", "<imported>"},
        {"name of length 0", imported(0, {0, 0, 0, 0}), "", "<imported>"},
        {"name cut at a zero byte", imported(0, {3, 0, 0, 0, 'a', 0, 'b'}), "a", "<imported>"},
        {"any non-zero flag is variable", imported(7, {}), "", "<variable size imported>"},
        {"enum of bool", record(15, 3).i32(3).u32(1).str("t").i64(1).done(), "", "enum {t:1}"},
        {"struct without fields", record(15, 1).u64(24).u32(0).str("s").done(), "s", "struct {}"},
    };
    for (row const& r : rows) {
        SCOPED_TRACE(r.what);
        sd_test::hook_counter hooks;
        auto block = deserialize(r.rec, file);
        ASSERT_TRUE(block);
        EXPECT_EQ(hooks.calls(), 0);
        EXPECT_EQ(block->type->name(), r.name);
        EXPECT_EQ(block->type->to_string(), r.text);
    }
    auto e = std::dynamic_pointer_cast<sd_enum_type>(deserialize(rows[5].rec, file)->type);
    EXPECT_EQ(e->base_type, SD_BOOL);
    EXPECT_EQ(deserialize(rows[6].rec, file)->type->mem_size(), 24u);
}

} // namespace
