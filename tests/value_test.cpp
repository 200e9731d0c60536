// Value objects: images checked against literal bytes in both directions,
// cursor writes and truncation, mismatches with their hook counts, decoding
// at the edges of a buffer, ownership and text forms.
#include "sd_value.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);

bytes of(sd_buffer const& b) { return bytes(b.data(), b.data() + b.size()); }
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
tree decode(sd_type_ptr const& t, bytes const& in, unsigned long& off, bool parts = true)
{
    sd_buffer b;
    b.append(in.data(), in.size());
    return own(sd_value::from_bytes(t.get(), b, off, parts));
}

auto struct_of(unsigned long size, std::vector<std::pair<sd_type_ptr, unsigned long>> fields)
{
    auto t = std::make_shared<sd_struct_type>(-1, size);
    for (auto& f : fields)
        t->add_field("f", f.first, f.second);
    return t;
}
auto enum_of(sd_predefined_type_ptr base, std::vector<std::pair<char const*, long>> values)
{
    auto t = std::make_shared<sd_enum_type>(-1, std::move(base));
    for (auto& v : values)
        t->add_value(v.first, v.second);
    return t;
}
// An option (none: tag 0; some: tag 1, payload at 4), or with `tag_at`
// one constructor "v" of tag 7 over a payload at 0, in 8 bytes.
auto variant_of(sd_type_ptr payload, unsigned long tag_at = AUTO)
{
    auto t = std::make_shared<sd_variant_type>(-1, tag_at == AUTO ? AUTO : 8);
    if (tag_at != AUTO)
        return t->add_constructor("v", payload, tag_at, 7, 0), t;
    t->add_constructor("none", nullptr, AUTO, -1, AUTO);
    t->add_constructor("some", payload, AUTO, -1, AUTO);
    return t;
}
auto array_of(sd_type_ptr base, std::vector<unsigned long> d) { return std::make_shared<sd_array_type>(-1, base, d); }

} // namespace

TEST(ValueEncoding, ImagesBothWaysAndMismatches)
{
    auto opt = variant_of(SD_INT32);
    auto pair = struct_of(AUTO, {{SD_INT16, 0}, {SD_FLOAT64, 2}});
    auto grid = array_of(SD_INT8, {2, 2});
    auto imported4 = std::make_shared<sd_imported_type>(-1, 4);
    // `text` is that of the value decoded back (null: not decoded); `hooks`
    // -1 means the value encodes, else it fails with that many hook calls.
    struct { sd_type_ptr type; tree value; bytes image; char const* text; long hooks = -1; } rows[] = {
        {struct_of(16, {{SD_INT16, 0}, {SD_FLOAT64, 8}}), own(L({i16(7), new sd_predefined_float64_value(1.5)})),
         {7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F}, "(7,1.500000)"},
        {array_of(SD_INT16, {2, 3}), own(L({L({i16(1), i16(2), i16(3)}), L({i16(4), i16(5), i16(-1)})})),
         {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0xFF, 0xFF}, "((1,2,3),(4,5,-1))"},
        {struct_of(AUTO, {{struct_of(AUTO, {{SD_INT8, 0}, {SD_UINT16, 2}}), AUTO}, {SD_CHAR8, AUTO}}),
         own(L({L({i8(-3), new sd_predefined_uint16_value(500)}), new sd_predefined_char8_value('Z')})),
         {0xFD, 0, 0xF4, 1, 'Z'}, "((-3,500),'Z')"},
        // Names match on their last component; the decode shows the full one.
        {enum_of(SD_UINT8, {{"Color::Red", 1}, {"Color::Blue", 200}}), own(new sd_enum_value("Blue")), {200},
         "Color::Blue"},
        {enum_of(SD_FLOAT64, {{"Three", 3}}), own(new sd_enum_value("Three")), {0, 0, 0, 0, 0, 0, 8, 0x40}, "Three"},
        {opt, own(new sd_variant_value("some", i32(5))), {1, 0, 0, 0, 5, 0, 0, 0}, "some{5}"},
        {opt, own(new sd_variant_value("none", nullptr)), {0, 0, 0, 0, 0, 0, 0, 0}, "none{}"},
        // The payload ends at 4, so the padding up to 8 lands behind the tag.
        {variant_of(SD_INT32, 4), own(new sd_variant_value("v", i32(5))), {5, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0}, "v{5}"},
        {std::make_shared<sd_imported_type>(-1, 3), own(new sd_imported_value({0x0A, 0xBC, 0xFF})),
         {0x0A, 0xBC, 0xFF}, "0ABCFF"},
        // A tag behind an imported payload is lost; the padding is zero.
        {variant_of(imported4, 4), own(new sd_variant_value("v", new sd_imported_value({1, 2, 3, 4}))),
         {1, 2, 3, 4, 0, 0, 0, 0}, nullptr},
        // No padding follows a struct's last field, so padded structs pack tightly.
        {array_of(struct_of(4, {{SD_INT8, 0}}), {2}), own(L({L({i8(1)}), L({i8(2)})})), {1, 2}, nullptr},
        // A later field at a lower offset truncates an earlier one.
        {struct_of(AUTO, {{SD_INT32, 4}, {std::make_shared<sd_imported_type>(-1, 2), 0}}),
         own(L({i32(-1), new sd_imported_value({1, 2})})), {1, 2}, nullptr},
        {array_of(SD_INT8, {}), own(L({})), {}, nullptr}, {nullptr, own(i32(3)), {3, 0, 0, 0}, nullptr},
        {nullptr, own(new sd_untyped_variant_constructor_value()), {}, nullptr},
        // Mismatches: another predefined kind and an untyped value fail
        // quietly, the rest call the hook once per level they fail at.
        {SD_INT64, own(i32(1)), {}, nullptr, 0},
        {SD_INT8, own(new sd_untyped_variant_constructor_value()), {}, nullptr, 0},
        {imported4, own(new sd_imported_value({1, 2, 3})), {}, nullptr, 1},
        {std::make_shared<sd_imported_type>(-1, 4, nullptr, nullptr), own(new sd_imported_value({1, 2, 3, 4, 5})), {},
         nullptr, 1},
        {enum_of(SD_INT32, {{"A", 1}}), own(new sd_enum_value("B")), {}, nullptr, 1},
        {pair, own(L({i16(1)})), {}, nullptr, 1}, {pair, own(L({i16(1), i8(2)})), {}, nullptr, 1},
        {grid, own(L({i8(1), i8(2), i8(3), i8(4)})), {}, nullptr, 1}, {grid, own(L({i8(1), i8(2)})), {}, nullptr, 1},
        {opt, own(new sd_variant_value("many", i32(1))), {}, nullptr, 1},
        {opt, own(new sd_variant_value("some", nullptr)), {}, nullptr, 1},
        {struct_of(AUTO, {{opt, 0}}), own(L({new sd_variant_value("x", nullptr)})), {}, nullptr, 2},
        // A null type or one of another class fails quietly at the level
        // that finds it, for every class but the scalar, and a scalar refuses
        // any type that is not predefined.
        {nullptr, own(new sd_imported_value({1, 2, 3, 4})), {}, nullptr, 0},
        {SD_INT32, own(new sd_imported_value({1, 2, 3, 4})), {}, nullptr, 0},
        {nullptr, own(new sd_enum_value("A")), {}, nullptr, 0},
        {imported4, own(new sd_enum_value("A")), {}, nullptr, 0},
        {nullptr, own(L({i8(1)})), {}, nullptr, 0}, {SD_INT8, own(L({i8(1)})), {}, nullptr, 0},
        {enum_of(SD_INT8, {{"A", 1}}), own(L({i8(1)})), {}, nullptr, 0},
        {nullptr, own(new sd_variant_value("some", i32(5))), {}, nullptr, 0},
        {pair, own(new sd_variant_value("some", i32(5))), {}, nullptr, 0},
        {imported4, own(i32(1)), {}, nullptr, 0}, {enum_of(SD_INT32, {{"A", 1}}), own(i32(1)), {}, nullptr, 0},
        {opt, own(i32(1)), {}, nullptr, 0},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.value->to_string() + " as " + (r.type ? r.type->to_string() : "nothing"));
        sd_test::hook_counter hooks;
        sd_buffer appended, at_cursor;
        unsigned long cursor = 0, off = 0;
        int const rc = r.hooks < 0 ? 0 : -1;
        EXPECT_EQ(r.value->to_bytes(appended, r.type.get(), nullptr), rc);
        EXPECT_EQ(r.value->to_bytes(at_cursor, r.type.get(), &cursor), rc);
        EXPECT_EQ(hooks.calls(), rc ? 2 * r.hooks : 0);
        if (rc)
            continue;
        EXPECT_EQ(of(appended), r.image);
        EXPECT_EQ(of(at_cursor), r.image);
        if (r.text) {
            EXPECT_EQ(cursor, r.image.size());
            EXPECT_EQ(decode(r.type, r.image, off)->to_string(), r.text);
            EXPECT_EQ(off, r.type->mem_size()); // a decode always strides by the type's size
        }
    }

    // At a cursor a scalar overwrites in place; enum and imported bytes cut off the tail.
    sd_buffer b(6);
    unsigned long off = 2;
    ASSERT_EQ(sd_predefined_uint16_value(0x0102).to_bytes(b, SD_UINT16.get(), &off), 0);
    EXPECT_EQ(of(b), (bytes{0, 0, 2, 1, 0, 0}));
    off = 3;
    ASSERT_EQ(sd_enum_value("X").to_bytes(b, enum_of(SD_UINT8, {{"X", 9}}).get(), &off), 0);
    EXPECT_EQ(of(b), (bytes{0, 0, 2, 9}));
    off = 1;
    ASSERT_EQ(sd_imported_value({0x11, 0x22}).to_bytes(b, std::make_shared<sd_imported_type>(-1, 2).get(), &off), 0);
    EXPECT_EQ(of(b), (bytes{0, 0x11, 0x22}));
}

TEST(ValueEncoding, VariableSizeImportedFixedPartRoundTrip)
{
    // The fixed part encodes as it is, but a decode skips it: what comes back
    // holds the variable part stored behind the image, and so no longer
    // encodes as the type unless the two lengths agree.
    auto vs4 = std::make_shared<sd_imported_type>(-1, 4, nullptr, nullptr);
    sd_buffer b;
    ASSERT_EQ(sd_imported_value({1, 2, 3, 4}).to_bytes(b, vs4.get(), nullptr), 0);
    EXPECT_EQ(of(b), (bytes{1, 2, 3, 4}));

    unsigned long off = 0;
    tree fixed_only = own(sd_value::from_bytes(vs4.get(), b, off, false));
    auto* v = dynamic_cast<sd_imported_value*>(fixed_only.get());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->is_vsize, 1);
    EXPECT_EQ(v->bytes, bytes{});
    EXPECT_EQ(off, 4u);

    bytes const part = {2, 0, 0, 0, 0, 0, 0, 0, 'X', 'Y'};
    b.append(part.data(), part.size());
    off = 0;
    tree whole = own(sd_value::from_bytes(vs4.get(), b, off, true));
    v = dynamic_cast<sd_imported_value*>(whole.get());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->bytes, (bytes{'X', 'Y'}));
    EXPECT_EQ(off, 14u);

    sd_test::hook_counter hooks;
    sd_buffer again;
    EXPECT_EQ(v->to_bytes(again, vs4.get(), nullptr), -1);
    EXPECT_EQ(hooks.calls(), 1);
    v->bytes = {9, 8, 7, 6};
    EXPECT_EQ(v->to_bytes(again, vs4.get(), nullptr), 0);
    EXPECT_EQ(of(again), (bytes{9, 8, 7, 6}));
}

TEST(ValueDecoding, VariablePartsAndBufferEdges)
{
    // Variable parts follow the whole image: 1 fixed byte, a 64-bit length, the bytes.
    auto vs1 = std::make_shared<sd_imported_type>(-1, 1, nullptr, nullptr);
    auto rec = struct_of(AUTO, {{vs1, AUTO}, {variant_of(vs1), AUTO}, {vs1, AUTO}});
    bytes const rec_image = {0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 'A', 2, 0, 0, 0, 0, 0, 0, 0, 'B', 'C'};
    // `text` null: the decode raises std::out_of_range; `end`: the offset after it.
    struct { sd_type_ptr type; bytes in; bool parts; char const* text; unsigned long end; } const rows[] = {
        // In field order, and none below a variant; a nested decode skips them.
        {rec, rec_image, true, "(41,some{},4243)", 26},
        {rec, rec_image, false, "(,some{},)", 7},
        // A length past the end copies what exists and zero-fills; an empty
        // read at the very end raises.
        {vs1, {0, 5, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}, true, "AABB000000", 14},
        {vs1, {0, 0, 0, 0, 0, 0, 0, 0, 0}, true, nullptr, 0},
        {SD_UINT64, {1, 2, 3}, false, "197121", 8}, // 0x030201
        // What a decode built before it raised is freed, a variant's inner
        // value included (the sanitizer build checks).
        {struct_of(AUTO, {{variant_of(SD_INT32), AUTO}, {SD_INT32, AUTO}}), {1, 0, 0, 0, 5, 0, 0, 0}, 0, nullptr, 0},
        // No type or no bytes: an untyped value, and nothing is read.
        {nullptr, {1}, true, "", 0},
        {rec, {}, true, "", 0},
        // An integer without an enumerator and a tag without a constructor
        // are no errors: the name stays empty.
        {array_of(enum_of(SD_INT16, {{"A", 1}, {"B", 300}}), {3}), {1, 0, 7, 0, 0x2C, 1}, true, "(A,,B)", 6},
        {variant_of(SD_INT32), {9, 0, 0, 0, 5, 0, 0, 0}, true, "?", 8},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.in));
        sd_test::hook_counter hooks;
        unsigned long off = 0;
        if (!r.text) {
            EXPECT_THROW(decode(r.type, r.in, off, r.parts), std::out_of_range);
            continue;
        }
        tree v = decode(r.type, r.in, off, r.parts);
        EXPECT_EQ(v->to_string(), r.text);
        EXPECT_EQ(off, r.end);
        EXPECT_EQ(hooks.calls(), 0);
    }
}

TEST(ValueModel, OwnershipVariablePartsAndText)
{
    static int destroyed = 0;
    struct tracked : sd_none_value {
        ~tracked() override { ++destroyed; }
    };
    auto* kept = new tracked();
    auto* vsize = new sd_imported_value({1});
    auto* hidden = new sd_imported_value({2});
    vsize->is_vsize = hidden->is_vsize = 1;
    auto* list = L({new tracked(), new sd_variant_value("v", kept), nullptr, vsize, new sd_variant_value("h", hidden)});
    std::vector<sd_imported_value*> seen;
    list->iter_vsize_parts([&](sd_imported_value* p) { seen.push_back(p); });
    EXPECT_EQ(seen, std::vector<sd_imported_value*>{vsize});
    delete list; // the children go, the variants' inner values stay
    EXPECT_EQ(destroyed, 1);
    delete kept;
    delete hidden;

    std::string const nul("'\0'", 3);
    std::pair<tree, std::string> const rows[] = {
        {own(new sd_predefined_bool_value(2)), "true"},
        {own(new sd_predefined_char16_value(0x0141)), "'A'"},
        {own(new sd_predefined_char32_value(0x1F600)), nul},
        {own(sd_predefined_bool_value(1).clone()), "1"}, // a clone is of the template class: digits
        {own(sd_predefined_char16_value(0x0141).clone()), "321"},
        {own(L({L({i8(1), nullptr}), L({})})), "((1,),())"},
        {own(sd_predefined_value::from_bytes(SD_CHAR8.get(), nullptr)), nul},
    };
    for (auto const& r : rows)
        EXPECT_EQ(r.first->to_string(), r.second);
    sd_predefined_type no_kind(static_cast<sd_predefined_type_kind>(14));
    sd_buffer b(1);
    unsigned long off = 0;
    EXPECT_EQ(sd_predefined_value::from_bytes(&no_kind, b, off), nullptr);
    EXPECT_EQ(off, 0u);
}
