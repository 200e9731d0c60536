// Type calls and the type registry: building types through handles, reading
// them back by class and by index, and how a created type's handle lives on
// in a file after the registry lets go of it.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

unsigned long const kAuto = static_cast<unsigned long>(-1);
// An address no type has, so it resolves to nothing, and without a hook.
long const kUnknown = 0x1234560;

} // namespace

TEST(FlatType, ClassSizeAndGettersOfEveryKindOfHandle)
{
    long st = sdt_struct_create(kAuto);
    sdt_struct_add_field(st, "a", kAuto, SDT_INT8);
    sdt_struct_add_field(st, "b", kAuto, SDT_INT32);
    long en = sdt_enum_create(-1), en8 = sdt_enum_create(SDT_UINT8);
    unsigned long dims[] = {2, 3};
    long arr = sdt_array_create(SDT_INT16, 2, dims);
    long var = sdt_variant_create(kAuto);
    sdt_variant_add_constructor(var, "some", 8, 3, 12, SDT_INT64);
    sdt_variant_add_constructor(var, "nothing", 8, 4, 12, kUnknown);
    struct { long type; int klass; unsigned long size; long hooks; } const cases[] = {
        {SDT_FLOAT64, 0, 8, 0}, {st, 1, 5, 0}, {arr, 2, 12, 0}, {en, 3, 4, 0}, {kUnknown, -1, 0, 1}, {-1, -1, 0, 3}};
    for (auto const& c : cases) {
        sd_test::hook_counter hooks; // of sdt_get_class and sdt_get_size together
        EXPECT_EQ(sdt_get_class(c.type), c.klass) << c.type;
        EXPECT_EQ(sdt_get_size(c.type), c.size) << c.type;
        EXPECT_EQ(hooks.calls(), c.hooks) << c.type;
    }
    EXPECT_EQ(sdt_enum_get_base_type(en), SDT_INT32);
    unsigned char v200 = 200;
    sdt_enum_add_value(en8, "big", &v200);
    std::uint64_t raw = ~0ull; // the enumerator goes out in its base's one byte
    EXPECT_EQ(sdt_enum_get_value_value(en8, 0, &raw), 0);
    EXPECT_EQ(raw, 0xFFFFFFFFFFFFFFC8ull);
    EXPECT_EQ(sdt_variant_get_constructor_value_type(var, 0), SDT_INT64);
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdt_variant_get_constructor_value_type(var, 1), -1); // exists, no payload
    EXPECT_EQ(hooks.calls(), 1);
    EXPECT_EQ(sdt_enum_create(st), -1);
    EXPECT_EQ(sdt_array_create(-1, 0, nullptr), -1); // the resolver hooks too
    EXPECT_EQ(hooks.calls(), 4);
    // Indexed getters hook twice on a miss, the count by class once.
    EXPECT_EQ(sdt_struct_get_field_name(en8, 0), nullptr); // wrong class
    EXPECT_EQ(sdt_enum_get_value_name(en8, 1), nullptr);   // index equal to the count
    EXPECT_EQ(sdt_variant_get_constructor_value_offset(var, 2), 0u);
    EXPECT_EQ(hooks.calls(), 10);
    EXPECT_EQ(sdt_struct_get_n_fields(en8), 0u);
    EXPECT_EQ(hooks.calls(), 11);
    for (long t : {st, en, en8, arr, var})
        sdt_close(t);
}

TEST(FlatTypeRegistry, ClosingLeavesKindsAndStoredTypesAlone)
{
    for (long h : {-1L, 0L, long(SDT_INT32)})
        EXPECT_EQ(sdt_close(h), 0);
    EXPECT_EQ(sdt_get_class(SDT_INT32), 0);
    long f = sdf_create(sd_test::temp_path("registry.sdf").c_str());
    long st = sdt_struct_create(kAuto);
    sdt_struct_add_field(st, "v", kAuto, SDT_FLOAT32);
    long lone = sdt_imported_create(3);
    long e = sde_create(f, "e", st, SDE_SIGNAL);
    EXPECT_EQ(sdt_close(st), 0);
    EXPECT_EQ(sdt_close(lone), 0);
    // The file keeps the stored type under its handle; the other one is gone.
    EXPECT_EQ(sde_get_type(e), st);
    EXPECT_EQ(sdt_get_class(st), 1);
    EXPECT_EQ(sdt_get_class(lone), -1);
    long all[16] = {0}; // the kinds first, then the stored type
    ASSERT_EQ(sdt_get_n_all_types(f), 15u);
    ASSERT_EQ(sdt_get_all_types(f, all), 0);
    EXPECT_EQ(std::vector<long>(all, all + 15), (std::vector<long>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, st}));
    ASSERT_EQ(sdf_close(f), 0);
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdt_get_n_all_types(f), 0u);
    EXPECT_EQ(sdt_get_all_types(f, all), -1);
    EXPECT_EQ(hooks.calls(), 2);
}
