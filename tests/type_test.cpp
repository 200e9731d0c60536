// Types in memory: the predefined table, the layout rules of the composite
// classes (sizes, offsets, tags, enumerators), the walk over imported parts
// and the text form of every type class.
#include "sd_type.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);
using ulongs = std::vector<unsigned long>;

TEST(PredefinedTypes, TableLookupAndPredicates)
{
    std::string texts, sizes, families;
    ASSERT_EQ(sd_predefined_types::all_.size(), 14u);
    for (long kind = 0; kind < 14; ++kind) {
        sd_predefined_type_ptr t = sd_predefined_types::get(kind);
        ASSERT_EQ(t, sd_predefined_types::all_[kind]) << kind; // one object per kind
        EXPECT_EQ(std::make_pair(long(t->iid()), t->id()), std::make_pair(kind, kind)); // both are the kind
        EXPECT_EQ(t->name(), t->to_string());
        texts += t->to_string() + " ";
        sizes += std::to_string(t->mem_size());
        // One letter per predicate that holds.
        families += std::string(t->is_char() ? "c" : "") + (t->is_bool() ? "b" : "") +
                    (t->is_signed_integer() ? "s" : "") + (t->is_unsigned_integer() ? "u" : "") +
                    (t->is_integer() ? "i" : "") + (t->is_float() ? "f" : "") + (t->is_numeric() ? "n" : "") + " ";
    }
    EXPECT_EQ(texts, "char8 char16 char32 bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float32 float64 ");
    EXPECT_EQ(sizes, "12411248124848");
    EXPECT_EQ(families, "c c c b sin sin sin sin uin uin uin uin fn fn ");
    for (long bad : {-1L, 14L, reinterpret_cast<long>(SD_INT32.get())})
        EXPECT_FALSE(sd_predefined_types::get(bad)) << bad;
    EXPECT_EQ(sd_predefined_type_kind_to_string(sd_predefined_type_kind(14)), "<unknown>");
}

TEST(PredefinedTypesDeathTest, RenamingAScalarEndsTheProcess)
{
    EXPECT_DEATH(SD_BOOL->set_name("flag"), "");
}

TEST(CompositeTypes, StructLayout)
{
    struct field { sd_predefined_type_ptr type; unsigned long offset, expected; };
    struct row { char const* what; unsigned long size; std::vector<field> fields; unsigned long expected; };
    std::vector<row> const rows = {
        {"packed", AUTO, {{SD_INT8, AUTO, 0}, {SD_INT32, AUTO, 1}, {SD_INT8, AUTO, 5}}, 6},
        {"fixed", 16, {{SD_INT32, 8, 8}, {SD_INT32, AUTO, 12}}, 16},
        {"fixed, field past end", 4, {{SD_INT64, 2, 2}}, 4},
        // Packing follows the last field added, not the highest one.
        {"out of order", AUTO, {{SD_INT32, 8, 8}, {SD_INT8, 0, 0}, {SD_INT16, AUTO, 1}}, 12},
    };
    for (row const& r : rows) {
        sd_struct_type s(-1, r.size);
        for (field const& f : r.fields)
            s.add_field("f", f.type, f.offset);
        for (std::size_t i = 0; i < r.fields.size(); ++i)
            EXPECT_EQ(s.fields[i]->offset, r.fields[i].expected) << r.what << ", field " << i;
        EXPECT_EQ(s.mem_size(), r.expected) << r.what;
    }
}

TEST(CompositeTypes, EnumValuesAndVariantTags)
{
    // Enumerators count from 1, variant tags from 0, each behind the greatest so far.
    sd_enum_type e(-1, SD_UINT8);
    unsigned char raw = 200;
    void const* const given[] = {nullptr, nullptr, nullptr, &raw, nullptr};
    for (void const* p : given)
        e.add_value("v", p);
    sd_variant_type v(-1, AUTO);
    for (int tag : {-1, -1, 5, -1, -7, -1})
        v.add_constructor("c", nullptr, AUTO, tag, AUTO);
    std::vector<long> values, tags;
    for (auto const& x : e.values)
        values.push_back(x->value());
    for (auto const& c : v.constructors)
        tags.push_back(c->tag_value);
    EXPECT_EQ(values, (std::vector<long>{1, 2, 3, 200, 201}));
    EXPECT_EQ(tags, (std::vector<long>{0, 1, 5, 6, -7, 7}));
    EXPECT_EQ(v.constructors[0]->tag_offset, 0u);
    EXPECT_EQ(v.mem_size(), 4u);
    unsigned char out[2] = {0, 0x5A};
    e.values[3]->value(out);
    EXPECT_EQ(out[0], 200);
    EXPECT_EQ(out[1], 0x5A) << "wrote past the base kind's width";
    sd_enum_type q(-1, SD_INT32); // lookups by name, plain and qualified
    q.add_value("A::X", -5L);
    q.add_value("Y", nullptr); // all negative so far: still 1
    q.add_value("C::Y", -9000000000L);
    struct row { char const* name; bool exact; long expected; }; // 0: none
    row const rows[] = {{"A::X", true, -5}, {"B::X", true, 0}, {"B::X", false, -5}, {"X", false, -5},
                        {"C::Y", false, -9000000000}, {"D::Y", false, 1}, {"Z", false, 0}};
    for (row const& r : rows) {
        auto v = q.find_value(r.name, r.exact);
        EXPECT_EQ(v ? v->value() : 0, r.expected) << r.name << " exact=" << r.exact;
    }
    EXPECT_EQ(q.to_string(), "enum {A::X:-5, Y:1, C::Y:-9000000000}");
    EXPECT_EQ(q.mem_size(), 4u); // the size of the base kind
}

TEST(CompositeTypes, SizesImportedPartsAndTextForms)
{
    auto rec = std::make_shared<sd_struct_type>(-1, 16);
    rec->add_field("n", SD_INT32, 0);
    rec->add_field("b", std::make_shared<sd_imported_type>(-1, 8, nullptr, nullptr), 8);
    rec->set_name("rec"); // a type's own name never shows
    auto holder = std::make_shared<sd_variant_type>(-1, AUTO);
    holder->add_constructor("r", rec, AUTO, -1, AUTO);
    holder->add_constructor("none", nullptr, AUTO, -1, AUTO);
    auto outer = std::make_shared<sd_struct_type>(-1, AUTO);
    outer->add_field("p", std::make_shared<sd_imported_type>(-1, 3), 4); // fixed size: visited too
    outer->add_field("q", std::make_shared<sd_array_type>(-1, rec, ulongs{2, 2}), 16);
    auto tail = std::make_shared<sd_variant_type>(-1, AUTO); // the tag's own place is not counted
    tail->add_constructor("x", SD_INT16, 2, 0, 0);
    // A variant's payload is never visited: which constructor holds is not known here.
    struct row { sd_type_ptr type; unsigned long size; ulongs offsets; std::string text; };
    std::string const r = "struct {n:int32, b:<variable size imported>}";
    row const rows[] = {
        {std::make_shared<sd_array_type>(-1, rec, ulongs{3}), 48, {108, 124, 140}, r + "^3"},
        {holder, 20, {}, "r{" + r + "} | none{}"},
        {outer, 80, {104, 124, 140, 156, 172}, "struct {p:<imported>, q:" + r + "^2^2}"},
        {std::make_shared<sd_variant_type>(-1, AUTO), 0, {}, ""},
        {tail, 2, {}, "x{int16}"},
        {std::make_shared<sd_array_type>(-1, SD_INT16, ulongs{}), 2, {}, "int16"},
        {std::make_shared<sd_array_type>(-1, SD_INT16, ulongs{4, 0}), 0, {}, "int16^4^0"},
    };
    for (row const& w : rows) {
        ulongs got;
        auto note = [&got](unsigned long off, sd_imported_type const*) { got.push_back(off); };
        w.type->iter_vsize_parts(note, 100);
        EXPECT_EQ(got, w.offsets) << w.text;
        EXPECT_EQ(w.type->to_string(), w.text);
        EXPECT_EQ(w.type->mem_size(), w.size) << w.text;
    }
}

} // namespace
