// Value objects: images checked against literal bytes in both directions,
// cursor writes and truncation, mismatches with their hook counts, decoding
// at the edges of a buffer, ownership and text forms.
#include "sd_value.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);

bytes of(sd_buffer const& b) { return bytes(b.data(), b.data() + b.size()); }
sd_buffer buf(bytes const& v)
{
    sd_buffer b;
    b.append(v.data(), v.size());
    return b;
}
sd_list_values* L(std::vector<sd_value*> v) { return new sd_list_values(std::move(v)); }
sd_value* i8(int v) { return new sd_predefined_int8_value(static_cast<signed char>(v)); }
sd_value* i16(int v) { return new sd_predefined_int16_value(static_cast<short>(v)); }
sd_value* i32(int v) { return new sd_predefined_int32_value(v); }

// What a caller does: a variant's inner value is closed by hand.
void free_tree(sd_value* v)
{
    if (auto* l = dynamic_cast<sd_list_values*>(v))
        for (sd_value*& c : l->values)
            free_tree(c), c = nullptr;
    if (auto* var = dynamic_cast<sd_variant_value*>(v))
        free_tree(var->value);
    delete v;
}
using tree = std::unique_ptr<sd_value, void (*)(sd_value*)>;
tree own(sd_value* v) { return tree(v, free_tree); }

using field_list = std::vector<std::pair<sd_type_ptr, unsigned long>>;
std::shared_ptr<sd_struct_type> struct_of(unsigned long size, field_list fields)
{
    auto t = std::make_shared<sd_struct_type>(-1, size);
    for (auto& f : fields)
        t->add_field("f", f.first, f.second);
    return t;
}
std::shared_ptr<sd_enum_type> enum_of(sd_predefined_type_ptr base, std::vector<std::pair<char const*, long>> values)
{
    auto t = std::make_shared<sd_enum_type>(-1, std::move(base));
    for (auto& v : values)
        t->add_value(v.first, v.second);
    return t;
}
std::shared_ptr<sd_variant_type> option_int32() // none: tag 0; some: tag 1, int32 at 4
{
    auto t = std::make_shared<sd_variant_type>(-1, AUTO);
    t->add_constructor("none", nullptr, AUTO, -1, AUTO);
    t->add_constructor("some", SD_INT32, AUTO, -1, AUTO);
    return t;
}
auto array_of(sd_type_ptr base, std::vector<unsigned long> dims)
{
    return std::make_shared<sd_array_type>(-1, std::move(base), std::move(dims));
}

} // namespace

TEST(ValueEncoding, ImagesBothWays)
{
    auto inner = struct_of(AUTO, {{SD_INT8, 0}, {SD_UINT16, 2}});
    auto tag_behind = std::make_shared<sd_variant_type>(-1, 8);
    tag_behind->add_constructor("v", SD_INT32, 4, 7, 0);
    struct row {
        sd_type_ptr type;
        tree value;
        bytes image;
        char const* text; // of the value decoded back
    } rows[] = {
        {struct_of(16, {{SD_INT16, 0}, {SD_FLOAT64, 8}}), own(L({i16(7), new sd_predefined_float64_value(1.5)})),
         {7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F}, "(7,1.500000)"},
        {array_of(SD_INT16, {2, 3}), own(L({L({i16(1), i16(2), i16(3)}), L({i16(4), i16(5), i16(-1)})})),
         {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0xFF, 0xFF}, "((1,2,3),(4,5,-1))"},
        {struct_of(AUTO, {{inner, AUTO}, {SD_CHAR8, AUTO}}),
         own(L({L({i8(-3), new sd_predefined_uint16_value(500)}), new sd_predefined_char8_value('Z')})),
         {0xFD, 0, 0xF4, 1, 'Z'}, "((-3,500),'Z')"},
        // Names match on their last component; the decode shows the full one.
        {enum_of(SD_UINT8, {{"Color::Red", 1}, {"Color::Blue", 200}}), own(new sd_enum_value("Blue")),
         {200}, "Color::Blue"},
        {enum_of(SD_INT16, {{"Neg", -2}}), own(new sd_enum_value("Neg")), {0xFE, 0xFF}, "Neg"},
        {enum_of(SD_FLOAT64, {{"Three", 3}}), own(new sd_enum_value("Three")), {0, 0, 0, 0, 0, 0, 8, 0x40}, "Three"},
        {option_int32(), own(new sd_variant_value("some", i32(5))), {1, 0, 0, 0, 5, 0, 0, 0}, "some{5}"},
        {option_int32(), own(new sd_variant_value("none", nullptr)), {0, 0, 0, 0, 0, 0, 0, 0}, "none{}"},
        // The payload ends at 4, so the padding up to 8 lands behind the tag.
        {tag_behind, own(new sd_variant_value("v", i32(5))), {5, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0}, "v{5}"},
        {std::make_shared<sd_imported_type>(-1, 3), own(new sd_imported_value({0x0A, 0xBC, 0xFF})),
         {0x0A, 0xBC, 0xFF}, "0ABCFF"},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.text);
        sd_test::hook_counter hooks;
        sd_buffer appended, at_cursor;
        unsigned long cursor = 0, off = 0;
        ASSERT_EQ(r.value->to_bytes(appended, r.type.get(), nullptr), 0);
        ASSERT_EQ(r.value->to_bytes(at_cursor, r.type.get(), &cursor), 0);
        EXPECT_EQ(of(appended), r.image);
        EXPECT_EQ(of(at_cursor), r.image);
        EXPECT_EQ(cursor, r.image.size());
        tree back = own(sd_value::from_bytes(r.type.get(), buf(r.image), off, true));
        EXPECT_EQ(back->to_string(), r.text);
        EXPECT_EQ(off, r.type->mem_size()); // a decode always strides by the type's size
        EXPECT_EQ(hooks.calls(), 0);
    }
}

TEST(ValueEncoding, CursorWritesAndTruncation)
{
    // A scalar overwrites in place; enum and imported bytes cut off the tail.
    sd_buffer b = buf({0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA});
    unsigned long off = 2;
    ASSERT_EQ(sd_predefined_uint16_value(0x0102).to_bytes(b, SD_UINT16.get(), &off), 0);
    EXPECT_EQ(of(b), (bytes{0xAA, 0xAA, 2, 1, 0xAA, 0xAA}));
    off = 3;
    ASSERT_EQ(sd_enum_value("X").to_bytes(b, enum_of(SD_UINT8, {{"X", 9}}).get(), &off), 0);
    EXPECT_EQ(of(b), (bytes{0xAA, 0xAA, 2, 9}));
    off = 1;
    sd_imported_type two(-1, 2);
    ASSERT_EQ(sd_imported_value({0x11, 0x22}).to_bytes(b, &two, &off), 0);
    EXPECT_EQ(of(b), (bytes{0xAA, 0x11, 0x22}));

    // A later field at a lower offset truncates an earlier one.
    sd_buffer c;
    auto crossed = struct_of(AUTO, {{SD_INT32, 4}, {std::make_shared<sd_imported_type>(-1, 2), 0}});
    ASSERT_EQ(own(L({i32(-1), new sd_imported_value({1, 2})}))->to_bytes(c, crossed.get(), nullptr), 0);
    EXPECT_EQ(of(c), (bytes{1, 2}));
    // No padding follows a struct's last field, so padded structs pack tightly.
    c.clear();
    ASSERT_EQ(own(L({L({i8(1)}), L({i8(2)})}))->to_bytes(c, array_of(struct_of(4, {{SD_INT8, 0}}), {2}).get(), nullptr), 0);
    EXPECT_EQ(of(c), (bytes{1, 2}));
    // A tag behind an imported payload is lost; the padding is zero.
    auto lost = std::make_shared<sd_variant_type>(-1, 8);
    lost->add_constructor("v", std::make_shared<sd_imported_type>(-1, 4), 4, 7, 0);
    c.clear();
    ASSERT_EQ(own(new sd_variant_value("v", new sd_imported_value({1, 2, 3, 4})))->to_bytes(c, lost.get(), nullptr), 0);
    EXPECT_EQ(of(c), (bytes{1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST(ValueEncoding, MismatchesFailWithTheirHooks)
{
    auto pair = struct_of(AUTO, {{SD_INT16, 0}, {SD_FLOAT64, 2}});
    auto opt = option_int32();
    auto grid = array_of(SD_INT8, {2, 2});
    auto no_dims = array_of(SD_INT8, {});
    auto e = enum_of(SD_INT32, {{"A", 1}});
    auto in_struct = struct_of(AUTO, {{opt, 0}});
    sd_imported_type fixed4(-1, 4), vsize4(-1, 4, nullptr, nullptr);
    struct row {
        char const* what;
        tree value;
        sd_type const* type;
        long hooks;
    } rows[] = {
        {"int32 as int64", own(i32(1)), SD_INT64.get(), 0},
        {"uint8 as char8", own(new sd_predefined_uint8_value(1)), SD_CHAR8.get(), 0},
        {"untyped with a type", own(new sd_untyped_variant_constructor_value()), SD_INT8.get(), 0},
        {"imported short", own(new sd_imported_value({1, 2, 3})), &fixed4, 1},
        {"vsize longer than its fixed part", own(new sd_imported_value({1, 2, 3, 4, 5})), &vsize4, 1},
        {"enum unknown name", own(new sd_enum_value("B")), e.get(), 1},
        {"struct short", own(L({i16(1)})), pair.get(), 1},
        {"struct child of another kind", own(L({i16(1), i8(2)})), pair.get(), 1},
        {"flat list for 2x2", own(L({i8(1), i8(2), i8(3), i8(4)})), grid.get(), 1},
        {"scalars for rows", own(L({i8(1), i8(2)})), grid.get(), 1},
        {"a child for no dims", own(L({i8(1)})), no_dims.get(), 1},
        {"variant unknown name", own(new sd_variant_value("many", i32(1))), opt.get(), 1},
        {"payload of another kind", own(new sd_variant_value("some", i8(1))), opt.get(), 1},
        {"payload missing", own(new sd_variant_value("some", nullptr)), opt.get(), 1},
        {"unknown name in a struct", own(L({new sd_variant_value("x", nullptr)})), in_struct.get(), 2},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.what);
        sd_buffer b;
        unsigned long off = 0;
        sd_test::hook_counter hooks;
        EXPECT_EQ(r.value->to_bytes(b, r.type, nullptr), -1);
        EXPECT_EQ(r.value->to_bytes(b, r.type, &off), -1);
        EXPECT_EQ(hooks.calls(), 2 * r.hooks);
    }
    sd_buffer b;
    EXPECT_EQ(own(L({}))->to_bytes(b, no_dims.get(), nullptr), 0);
    EXPECT_EQ(sd_untyped_variant_constructor_value().to_bytes(b, nullptr, nullptr), 0);
    EXPECT_EQ(sd_predefined_int32_value(3).to_bytes(b, nullptr, nullptr), 0);
    EXPECT_EQ(of(b), (bytes{3, 0, 0, 0}));
}

TEST(ValueDecoding, VariablePartsAndBufferEdges)
{
    // 8 fixed bytes, a 64-bit length, the variable bytes; the fixed part is
    // skipped, and a nested decode leaves the variable part alone.
    sd_imported_type vs8(-1, 8, nullptr, nullptr);
    bytes sample = {1, 2, 3, 4, 5, 6, 7, 8, 3, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB, 0xCC};
    unsigned long off = 0;
    tree v = own(sd_value::from_bytes(&vs8, buf(sample), off, true));
    EXPECT_TRUE(static_cast<sd_imported_value*>(v.get())->is_vsize);
    EXPECT_EQ(v->to_string(), "AABBCC");
    EXPECT_EQ(off, sample.size());
    off = 0;
    v = own(sd_value::from_bytes(&vs8, buf(sample), off, false));
    EXPECT_EQ(v->to_string(), "");
    EXPECT_EQ(off, 8u);

    // Parts follow the whole image in field order, and none below a variant.
    auto vs1 = std::make_shared<sd_imported_type>(-1, 1, nullptr, nullptr);
    auto boxed = std::make_shared<sd_variant_type>(-1, AUTO);
    boxed->add_constructor("b", vs1, AUTO, -1, AUTO);
    auto rec = struct_of(AUTO, {{vs1, AUTO}, {boxed, AUTO}, {vs1, AUTO}});
    bytes image = {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 'A', 2, 0, 0, 0, 0, 0, 0, 0, 'B', 'C'};
    off = 0;
    v = own(sd_value::from_bytes(rec.get(), buf(image), off, true));
    EXPECT_EQ(v->to_string(), "(41,b{},4243)");
    EXPECT_EQ(off, image.size());

    // A length past the end copies what exists and zero-fills; an empty read
    // at the very end raises, as does any read that starts past it.
    off = 0;
    v = own(sd_value::from_bytes(vs1.get(), buf({0, 5, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}), off, true));
    EXPECT_EQ(v->to_string(), "AABB000000");
    off = 0;
    EXPECT_THROW(sd_value::from_bytes(vs1.get(), buf({0, 0, 0, 0, 0, 0, 0, 0, 0}), off, true), std::out_of_range);
    sd_imported_type empty_fixed(-1, 0);
    off = 1;
    EXPECT_THROW(sd_value::from_bytes(&empty_fixed, buf({9}), off, false), std::out_of_range);
    off = 0;
    v = own(sd_value::from_bytes(SD_UINT64.get(), buf({1, 2, 3}), off, false));
    EXPECT_EQ(v->to_string(), "197121"); // 0x030201: the missing bytes read as zeros
    EXPECT_EQ(off, 8u);
    // What a decode built before it raised is freed, a variant's inner value
    // included (the sanitizer build checks).
    auto late = struct_of(AUTO, {{option_int32(), AUTO}, {SD_INT32, AUTO}});
    off = 0;
    EXPECT_THROW(sd_value::from_bytes(late.get(), buf({1, 0, 0, 0, 5, 0, 0, 0}), off, false), std::out_of_range);

    // No type or no bytes: an untyped value, and nothing is read.
    off = 3;
    EXPECT_EQ(own(sd_value::from_bytes(nullptr, buf({1}), off, true))->klass(), SD_VALUE_UNTYPED_CONSTRUCTOR);
    EXPECT_EQ(own(sd_value::from_bytes(rec.get(), sd_buffer(), off, true))->klass(), SD_VALUE_UNTYPED_CONSTRUCTOR);
    EXPECT_EQ(off, 3u);

    // An integer without an enumerator and a tag without a constructor are
    // no errors: the name stays empty.
    sd_test::hook_counter hooks;
    auto row = array_of(enum_of(SD_INT16, {{"A", 1}, {"B", 300}}), {3});
    off = 0;
    v = own(sd_value::from_bytes(row.get(), buf({1, 0, 7, 0, 0x2C, 1}), off, true));
    EXPECT_EQ(v->to_string(), "(A,,B)");
    EXPECT_EQ(off, 6u);
    auto const& enums = static_cast<sd_list_values*>(v.get())->values;
    auto* b = static_cast<sd_enum_value*>(enums[2]);
    EXPECT_EQ(b->int_value, 300);
    ASSERT_NE(b->predefined_value, nullptr);
    EXPECT_EQ(b->predefined_value->type_iid(), SD_KIND_INT16);
    EXPECT_EQ(static_cast<sd_enum_value*>(enums[1])->predefined_value, nullptr);
    off = 0;
    v = own(sd_value::from_bytes(option_int32().get(), buf({9, 0, 0, 0, 5, 0, 0, 0}), off, true));
    EXPECT_EQ(v->to_string(), "?");
    EXPECT_EQ(off, 8u);
    EXPECT_EQ(hooks.calls(), 0);
}

namespace {
int g_destroyed = 0;
struct tracked : sd_none_value {
    ~tracked() override { ++g_destroyed; }
};
} // namespace

TEST(ValueModel, OwnershipAndVariableParts)
{
    auto* kept = new tracked();
    auto* vsize = new sd_imported_value({1});
    auto* hidden = new sd_imported_value({2});
    vsize->is_vsize = hidden->is_vsize = 1;
    auto* list = L({new tracked(), new sd_variant_value("v", kept), nullptr, vsize, new sd_variant_value("h", hidden)});
    std::vector<sd_imported_value*> seen;
    list->iter_vsize_parts([&](sd_imported_value* p) { seen.push_back(p); });
    EXPECT_EQ(seen, std::vector<sd_imported_value*>{vsize});
    EXPECT_THROW(vsize->iter_vsize_parts(nullptr), std::bad_function_call);
    g_destroyed = 0;
    delete list; // the children go, the variants' inner values stay
    EXPECT_EQ(g_destroyed, 1);
    delete kept;
    delete hidden;
}

TEST(ValueModel, TextForms)
{
    sd_predefined_bool_value one(1);
    EXPECT_EQ(std::unique_ptr<sd_predefined_value>(one.clone())->type_iid(), SD_KIND_BOOL);
    struct row {
        tree value;
        int klass;
        std::string text;
    } rows[] = {
        {own(new sd_none_value()), 0, "none"},
        {own(new sd_predefined_float64_value(1.5)), 1, "1.500000"},
        {own(new sd_predefined_float32_value(-0.25f)), 1, "-0.250000"},
        {own(new sd_predefined_uint64_value(18446744073709551615UL)), 1, "18446744073709551615"},
        {own(new sd_predefined_uint32_value(4294967295u)), 1, "4294967295"},
        {own(new sd_predefined_int64_value(-9223372036854775807L - 1)), 1, "-9223372036854775808"},
        {own(new sd_predefined_int32_value(-5)), 1, "-5"},
        {own(new sd_predefined_bool_value(2)), 1, "true"},
        {own(new sd_predefined_bool_value(0)), 1, "false"},
        {own(new sd_predefined_char8_value('"')), 1, "'\"'"},
        {own(new sd_predefined_char16_value(0x0141)), 1, "'A'"},
        {own(new sd_predefined_char32_value(0x1F600)), 1, std::string("'\0'", 3)},
        {own(one.clone()), 1, "1"}, // a clone is of the template class: digits
        {own(sd_predefined_char16_value(0x0141).clone()), 1, "321"},
        {own(L({L({i8(1), new sd_predefined_float64_value(2.5)}), L({})})), 2, "((1,2.500000),())"},
        {own(new sd_enum_value("Red")), 3, "Red"},
        {own(new sd_variant_value("", i8(1))), 4, "?"},
        {own(new sd_variant_value("nil", nullptr)), 4, "nil{}"},
        {own(new sd_variant_value("p", L({new sd_predefined_char8_value('a')}))), 4, "p{('a')}"},
        {own(new sd_untyped_variant_constructor_value()), 5, ""},
        {own(new sd_imported_value({0x00, 0x9F, 0xFF})), 6, "009FFF"},
        {own(sd_predefined_value::from_bytes(SD_CHAR8.get(), nullptr)), 1, std::string("'\0'", 3)},
    };
    for (auto& r : rows) {
        EXPECT_EQ(r.value->to_string(), r.text);
        EXPECT_EQ(r.value->klass(), r.klass) << r.text;
    }
    sd_predefined_type no_kind(static_cast<sd_predefined_type_kind>(14));
    unsigned long off = 0;
    EXPECT_EQ(sd_predefined_value::from_bytes(&no_kind, buf({1}), off), nullptr);
    EXPECT_EQ(off, 0u);
}
