// Types in memory: the predefined table, the layout rules of the composite
// classes (sizes, offsets, tags, enumerators), the walk over imported parts
// and the text form of every type class.
#include "sd_type.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);
using ulongs = std::vector<unsigned long>;

TEST(PredefinedTypes, TableLookupAndPredicates)
{
    struct row { long kind; std::string text; unsigned long size; char family; };
    row const rows[] = {
        {0, "char8", 1, 'c'},  {1, "char16", 2, 'c'},  {2, "char32", 4, 'c'},   {3, "bool", 1, 'b'},
        {4, "int8", 1, 's'},   {5, "int16", 2, 's'},   {6, "int32", 4, 's'},    {7, "int64", 8, 's'},
        {8, "uint8", 1, 'u'},  {9, "uint16", 2, 'u'},  {10, "uint32", 4, 'u'},  {11, "uint64", 8, 'u'},
        {12, "float32", 4, 'f'}, {13, "float64", 8, 'f'},
    };
    ASSERT_EQ(sd_predefined_types::all_.size(), 14u);
    for (row const& r : rows) {
        SCOPED_TRACE(r.text);
        sd_predefined_type_ptr t = sd_predefined_types::get(r.kind);
        ASSERT_TRUE(t);
        EXPECT_EQ(t, sd_predefined_types::all_[r.kind]); // one object per kind
        EXPECT_EQ(t->iid(), r.kind);
        EXPECT_EQ(t->id(), r.kind);
        EXPECT_EQ(t->klass(), 0);
        EXPECT_EQ(t->name(), r.text);
        EXPECT_EQ(t->to_string(), r.text);
        EXPECT_EQ(t->mem_size(), r.size);
        EXPECT_EQ(t->is_char(), r.family == 'c');
        EXPECT_EQ(t->is_bool(), r.family == 'b');
        EXPECT_EQ(t->is_signed_integer(), r.family == 's');
        EXPECT_EQ(t->is_unsigned_integer(), r.family == 'u');
        EXPECT_EQ(t->is_integer(), r.family == 's' || r.family == 'u');
        EXPECT_EQ(t->is_float(), r.family == 'f');
        EXPECT_EQ(t->is_numeric(), r.family == 's' || r.family == 'u' || r.family == 'f');
    }
    EXPECT_EQ(sd_predefined_types::get(0), SD_CHAR8);
    EXPECT_EQ(sd_predefined_types::get(13), SD_FLOAT64);
    EXPECT_FALSE(sd_predefined_types::get(-1));
    EXPECT_FALSE(sd_predefined_types::get(14));
    EXPECT_FALSE(sd_predefined_types::get(reinterpret_cast<long>(SD_INT32.get())));
    EXPECT_EQ(sd_predefined_type_kind_to_string(sd_predefined_type_kind(14)), "<unknown>");
    EXPECT_EQ(sd_predefined_type_kind_to_string(sd_predefined_type_kind(-1)), "<unknown>");
}

TEST(PredefinedTypesDeathTest, RenamingAScalarEndsTheProcess)
{
    EXPECT_DEATH(SD_BOOL->set_name("flag"), "");
}

TEST(CompositeTypes, StructAndArrayLayout)
{
    struct field { sd_predefined_type_ptr type; unsigned long offset, expected; };
    struct row {
        char const* what;
        unsigned long size;
        std::vector<field> fields;
        unsigned long expected;
    };
    std::vector<row> const rows = {
        {"packed", AUTO, {{SD_INT8, AUTO, 0}, {SD_INT32, AUTO, 1}, {SD_INT8, AUTO, 5}}, 6},
        {"fixed", 16, {{SD_INT32, 8, 8}, {SD_INT32, AUTO, 12}}, 16},
        {"fixed, field past end", 4, {{SD_INT64, 2, 2}}, 4},
        // Packing follows the last field added, not the highest one.
        {"out of order", AUTO, {{SD_INT32, 8, 8}, {SD_INT8, 0, 0}, {SD_INT16, AUTO, 1}}, 12},
    };
    for (row const& r : rows) {
        SCOPED_TRACE(r.what);
        sd_struct_type s(-1, r.size);
        EXPECT_EQ(s.fixed_size, r.size != AUTO);
        for (field const& f : r.fields)
            s.add_field("f", f.type, f.offset);
        for (std::size_t i = 0; i < r.fields.size(); ++i)
            EXPECT_EQ(s.fields[i]->offset, r.fields[i].expected) << "field " << i;
        EXPECT_EQ(s.mem_size(), r.expected);
        EXPECT_EQ(s.find_field("f"), s.fields[0]);
    }
    EXPECT_EQ(sd_array_type(-1, SD_INT16, {2, 3}).mem_size(), 12u);
    EXPECT_EQ(sd_array_type(-1, SD_INT16, {}).mem_size(), 2u);
    EXPECT_EQ(sd_array_type(-1, SD_INT16, {4, 0}).mem_size(), 0u);
}

TEST(CompositeTypes, EnumValues)
{
    sd_enum_type e(-1, SD_UINT8);
    unsigned char raw = 200;
    for (void const* p : std::initializer_list<void const*>{nullptr, nullptr, nullptr, &raw, nullptr})
        e.add_value("v", p);
    std::vector<long> got;
    for (auto const& v : e.values)
        got.push_back(v->value());
    EXPECT_EQ(got, (std::vector<long>{1, 2, 3, 200, 201}));
    unsigned char out[2] = {0, 0x5A};
    e.values[3]->value(out);
    EXPECT_EQ(out[0], 200);
    EXPECT_EQ(out[1], 0x5A) << "wrote past the base kind's width";
    EXPECT_EQ(e.find_value(201L), e.values[4]);

    sd_enum_type neg(-1, SD_INT16);
    neg.add_value("m", -5L);
    neg.add_value("n", nullptr);
    EXPECT_EQ(neg.values[1]->value(), 1);

    sd_enum_type q(-1, SD_INT32);
    q.add_value("A::X", 1L);
    q.add_value("Y", 2L);
    q.add_value("C::Y", 3L);
    struct row { char const* name; bool exact; long expected; }; // 0: none
    row const rows[] = {{"A::X", true, 1}, {"B::X", true, 0}, {"B::X", false, 1}, {"X", false, 1},
                        {"C::Y", false, 3}, {"D::Y", false, 2}, {"Z", false, 0}};
    for (row const& r : rows) {
        auto v = q.find_value(r.name, r.exact);
        EXPECT_EQ(v ? v->value() : 0, r.expected) << r.name << " exact=" << r.exact;
    }
}

TEST(CompositeTypes, VariantTagsAndSizes)
{
    sd_variant_type v(-1, AUTO);
    v.add_constructor("some", SD_INT64, AUTO, -1, AUTO);
    auto const& c0 = *v.constructors[0];
    EXPECT_EQ(c0.tag_value, 0);
    EXPECT_EQ(c0.tag_offset, 0u);
    EXPECT_EQ(c0.value_offset, 4u);
    EXPECT_EQ(v.mem_size(), 12u);
    v.add_constructor("none", nullptr, AUTO, -1, AUTO);
    EXPECT_EQ(v.constructors[1]->tag_value, 1);
    EXPECT_EQ(v.mem_size(), 12u);
    EXPECT_EQ(v.find_constructor(1), v.find_constructor("none"));

    sd_variant_type bare(-1, AUTO);
    bare.add_constructor("a", nullptr, AUTO, 5, AUTO);
    EXPECT_EQ(bare.mem_size(), 4u);
    bare.add_constructor("b", nullptr, AUTO, -1, AUTO);
    bare.add_constructor("c", nullptr, AUTO, -7, AUTO);
    bare.add_constructor("d", nullptr, AUTO, -1, AUTO);
    EXPECT_EQ(bare.constructors[1]->tag_value, 6);
    EXPECT_EQ(bare.constructors[3]->tag_value, 7);

    sd_variant_type tail(-1, AUTO); // the tag's own place is not counted
    tail.add_constructor("x", SD_INT16, 2, 0, 0);
    EXPECT_EQ(tail.mem_size(), 2u);
}

TEST(CompositeTypes, ImportedPartsAreVisitedInLayoutOrder)
{
    auto blob = std::make_shared<sd_imported_type>(-1, 8, nullptr, nullptr);
    auto rec = std::make_shared<sd_struct_type>(-1, 16);
    rec->add_field("n", SD_INT32, 0);
    rec->add_field("b", blob, 8);
    auto arr = std::make_shared<sd_array_type>(-1, rec, ulongs{3});
    auto holder = std::make_shared<sd_variant_type>(-1, AUTO);
    holder->add_constructor("r", rec, AUTO, -1, AUTO);
    auto outer = std::make_shared<sd_struct_type>(-1, AUTO);
    outer->add_field("p", std::make_shared<sd_imported_type>(-1, 3), 4); // fixed size: visited too
    outer->add_field("q", std::make_shared<sd_array_type>(-1, rec, ulongs{2, 2}), 16);

    struct row { sd_type_ptr type; ulongs offsets; };
    std::vector<row> const rows = {
        {arr, {108, 124, 140}},
        {holder, {}},
        {std::make_shared<sd_array_type>(-1, SD_INT32, ulongs{1000}), {}},
        {outer, {104, 124, 140, 156, 172}},
    };
    for (row const& r : rows) {
        ulongs got;
        auto note = [&got](unsigned long off, sd_imported_type const*) { got.push_back(off); };
        r.type->iter_vsize_parts(note, 100);
        EXPECT_EQ(got, r.offsets) << r.type->to_string();
    }
}

TEST(CompositeTypes, TextForms)
{
    auto xy = std::make_shared<sd_struct_type>(-1, AUTO);
    xy->add_field("x", SD_INT32, AUTO);
    xy->add_field("y", SD_FLOAT64, AUTO);
    xy->set_name("pt"); // a type's own name never shows
    auto colour = std::make_shared<sd_enum_type>(-1, SD_UINT8);
    colour->add_value("red", 1L);
    colour->add_value("deep", -9000000000L);
    auto option = std::make_shared<sd_variant_type>(-1, AUTO);
    option->add_constructor("none", nullptr, AUTO, -1, AUTO);
    option->add_constructor("some", SD_INT32, AUTO, -1, AUTO);
    auto nested = std::make_shared<sd_struct_type>(-1, AUTO);
    nested->add_field("p", xy, AUTO);
    nested->add_field("a", std::make_shared<sd_array_type>(-1, option, ulongs{2}), AUTO);

    std::pair<sd_type_ptr, char const*> const rows[] = {
        {std::make_shared<sd_array_type>(-1, SD_INT32, ulongs{3, 4}), "int32^3^4"},
        {xy, "struct {x:int32, y:float64}"},
        {std::make_shared<sd_struct_type>(-1, AUTO), "struct {}"},
        {colour, "enum {red:1, deep:-9000000000}"},
        {std::make_shared<sd_enum_type>(-1, SD_INT8), "enum {}"},
        {option, "none{} | some{int32}"},
        {std::make_shared<sd_variant_type>(-1, AUTO), ""},
        {std::make_shared<sd_imported_type>(-1, 4), "<imported>"},
        {std::make_shared<sd_imported_type>(-1, 4, nullptr, nullptr), "<variable size imported>"},
        {nested, "struct {p:struct {x:int32, y:float64}, a:none{} | some{int32}^2}"},
    };
    for (auto const& r : rows)
        EXPECT_EQ(r.first->to_string(), r.second);
}

} // namespace
