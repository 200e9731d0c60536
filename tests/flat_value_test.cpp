// Value calls: scalars keep the width of their own kind, whatever a getter's
// name says; lists own their children; every getter refuses a value of
// another class with one hook, and only the class query takes null quietly.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <vector>

TEST(FlatValue, ScalarsKeepTheirOwnWidthWhateverTheGetter)
{
    using bytes = std::vector<unsigned char>;
    struct {
        sdd_value* value;
        long kind;
        int (*get)(sdd_value*, void*);
        bytes expected; // the rest of the output stays 0xEE
    } const cases[] = {
        {sdd_value_create_predef_float64(1.5), SDT_FLOAT64, sdd_value_get_predef_uint8,
         {0, 0, 0, 0, 0, 0, 0xF8, 0x3F}},
        {sdd_value_create_predef_uint8(0x1FF), SDT_UINT8, sdd_value_get_predef_float64, {0xFF}},
        {sdd_value_create_predef_int16(0x12345), SDT_INT16, sdd_value_get_predef_int64, {0x45, 0x23}},
        {sdd_value_create_predef_bool(2), SDT_BOOL, sdd_value_get_predef_raw, {2}},
        {sdd_value_create_predef_char16(0x10141), SDT_CHAR16, sdd_value_get_predef_raw, {0x41, 0x01}},
    };
    for (auto const& c : cases) {
        bytes out(10, 0xEE), expected = c.expected;
        expected.resize(10, 0xEE);
        EXPECT_EQ(sdd_value_get_predef_type_id(c.value), c.kind);
        EXPECT_EQ(c.get(c.value, out.data()), 0);
        EXPECT_EQ(out, expected) << "kind " << c.kind;
        sdd_value_close(c.value);
    }
}

TEST(FlatValue, ListsAndRefusalsOfOtherClasses)
{
    sdd_value* kids[] = {sdd_value_create_predef_int32(5), sdd_value_create_none()};
    sdd_value* list = sdd_value_create_list(2, kids);
    sdd_value* empty = sdd_value_create_list(0, nullptr);
    sdd_value* en = sdd_value_create_enum("red");
    unsigned char out[4] = {0};
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdd_value_get_list_value_at(list, 1), kids[1]);
    EXPECT_EQ(sdd_value_get_list_n_values(empty), 0u);
    EXPECT_EQ(sdd_value_get_enum_value(en), nullptr); // built from a name: no scalar
    EXPECT_EQ(sdd_value_get_class(nullptr), -1);
    sdd_value_close(nullptr);
    EXPECT_EQ(hooks.calls(), 0);

    EXPECT_EQ(sdd_value_get_list_value_at(list, 2), nullptr); // index equal to the count
    EXPECT_EQ(sdd_value_get_predef_type_id(nullptr), -1);
    EXPECT_EQ(sdd_value_get_predef_int32(list, out), -1);
    EXPECT_EQ(sdd_value_get_enum_name(kids[1]), nullptr);
    EXPECT_EQ(sdd_value_get_variant_name(en), nullptr);
    EXPECT_EQ(sdd_value_get_imported_size(list), 0u);
    EXPECT_EQ(sdd_value_get_imported_value(en, out), -1);
    EXPECT_EQ(hooks.calls(), 7);
    EXPECT_EQ(std::vector<unsigned char>(out, out + 4), std::vector<unsigned char>(4, 0));
    for (sdd_value* v : {list, empty, en}) // the list takes its children along
        sdd_value_close(v);
}
