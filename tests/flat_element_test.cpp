// Element calls: the tree through handles with a file handle as the roots' parent,
// resolving against direct calls on bad handles, and path lookups of elements and parts.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class FlatElement : public ::testing::Test {
protected:
    void TearDown() override { sdf_close(file); }
    std::string path = sd_test::temp_path("elements.sdf");
    long file = sdf_create(path.c_str());
};

} // namespace

TEST_F(FlatElement, FileHandleIsTheParentOfTheRootsAndSettersPersist)
{
    long a = sde_create(file, "a", SDT_INT32, SDE_SENSOR);
    long b = sde_create(file, "b", -1, SDE_OPERATOR);
    long a1 = sde_create(a, "a1", SDT_INT8, SDE_LOCAL);
    std::vector<long> roots(2);
    EXPECT_EQ(sde_get_children(file, roots.data()), 0);
    EXPECT_EQ(roots, (std::vector<long>{a, b}));
    EXPECT_EQ(sde_find_child(a, "a1"), a1);
    EXPECT_TRUE(sde_is_valid_id(a1));
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sde_is_valid_id(file));
    EXPECT_EQ(sde_find_child(file, "a1"), -1); // roots only; a miss is silent
    EXPECT_EQ(hooks.calls(), 0);
    EXPECT_EQ(sde_get_child(file, 2), -1);                    // index equal to the count
    EXPECT_EQ(sde_create(file, "a", SDT_INT8, SDE_WIRE), -1); // a sibling's name
    EXPECT_EQ(sde_get_type(b), -1);                           // created without one
    EXPECT_EQ(hooks.calls(), 3);
    EXPECT_EQ(sde_get_n_children(file), 2u);
    EXPECT_NE(sde_create(b, "a", SDT_INT8, SDE_WIRE), -1); // another parent's is fine
    EXPECT_EQ(sde_set_kind(b, static_cast<sde_tag_kind>(200)), 0);
    EXPECT_EQ(sde_get_kind(b), 200);
    EXPECT_EQ(sde_set_name(b, "group"), 0);
    EXPECT_EQ(sde_set_type(b, SDT_UINT16), 0);
    ASSERT_EQ(sdf_close(file), 0);
    EXPECT_FALSE(sde_is_valid_id(b));
    file = sdf_open(path.c_str());
    long g = sde_find(file, "group");
    EXPECT_STREQ(sde_get_name(g), "group");
    EXPECT_EQ(sde_get_kind(g), -56); // the file keeps one byte, read as signed
    EXPECT_EQ(sde_get_type(g), SDT_UINT16);
}

TEST_F(FlatElement, BadHandlesFailWithOneHookPerCall)
{
    long closed = sdf_create(sd_test::temp_path("closed.sdf").c_str());
    ASSERT_EQ(sdf_close(closed), 0);
    for (long parent : {-1L, 0L, closed}) { // the resolving calls survive any of these
        sd_test::hook_counter hooks;
        long untouched = 77;
        EXPECT_EQ(sde_create(parent, "x", SDT_INT32, SDE_SENSOR), -1);
        EXPECT_EQ(sde_find_child(parent, "x"), -1);
        EXPECT_EQ(sde_get_n_children(parent), 0u);
        EXPECT_EQ(sde_get_children(parent, &untouched), -1);
        EXPECT_FALSE(sde_is_valid_id(parent));
        EXPECT_EQ(untouched, 77);
        EXPECT_EQ(hooks.calls(), 4) << parent;
    }
    for (long h : {0L, -1L}) { // the direct calls check for these two only
        sd_test::hook_counter hooks;
        EXPECT_EQ(sde_get_name(h), nullptr);
        EXPECT_EQ(sde_get_type(h), -1);
        EXPECT_EQ(sde_get_kind(h), -1);
        EXPECT_EQ(sde_set_name(h, "n"), -1);
        EXPECT_EQ(sde_set_kind(h, SDE_WIRE), -1);
        EXPECT_EQ(sde_set_type(h, SDT_INT8), -1);
        EXPECT_EQ(sde_remove(h), -1);
        EXPECT_EQ(hooks.calls(), 7) << h;
    }
}

TEST_F(FlatElement, PathsNameElementsAndPartsOfTheirValues)
{
    long pt = sdt_struct_create(16);
    sdt_struct_add_field(pt, "x", 4, SDT_INT32);
    sdt_struct_add_field(pt, "y", 8, SDT_FLOAT64);
    long g = sde_create(file, "g", -1, SDE_OPERATOR);
    long a = sde_create(g, "a", pt, SDE_OUTPUT);
    char const *const part = "g/a.y", *tail = nullptr;
    long type = -1;
    unsigned long offset = 99;
    EXPECT_EQ(sde_find_part(file, part, &tail, &type, &offset), a);
    EXPECT_EQ(tail, part + 3);
    EXPECT_EQ(type, SDT_FLOAT64);
    EXPECT_EQ(offset, 8u);
    sd_test::hook_counter hooks;
    EXPECT_EQ(sde_find(file, "g/a.y"), -1); // a part of a value is no element
    EXPECT_EQ(sde_find(-1, "g/a"), -1);
    EXPECT_EQ(sde_find_part(file, "g/a[0]", &tail, &type, &offset), -1);
    EXPECT_EQ(sde_find_part(file, "g", &tail, &type, &offset), -1); // no type
    EXPECT_EQ(hooks.calls(), 4);
    sdt_close(pt);
}
