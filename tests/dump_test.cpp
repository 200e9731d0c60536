// The dump of a whole file, compared line for line with the expected text.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct pt_t {
    int x;
    double y;
};

TEST(Dump, PrintsTheWholeFileLineForLine)
{
    std::string path = sd_test::temp_path("dump.sdf");
    long pt = sdt_struct_create(static_cast<unsigned long>(-1));
    sdt_set_name(pt, "pt");
    sdt_struct_add_field(pt, "x", 0, SDT_INT32);
    sdt_struct_add_field(pt, "y", 8, SDT_FLOAT64);

    // Store the type as iid 14 through a scratch element, which is removed;
    // after reopening, the counter resumes at 14, so op and o get 15 and 16.
    long f = sdf_create(path.c_str());
    ASSERT_EQ(sde_remove(sde_create(f, "scratch", pt, SDE_LOCAL)), 0);
    sdt_close(pt);
    ASSERT_EQ(sdf_close(f), 0);

    f = sdf_open(path.c_str());
    ASSERT_EQ(sdt_get_n_all_types(f), 15u);
    std::vector<long> types(15);
    ASSERT_EQ(sdt_get_all_types(f, types.data()), 0);
    long op = sde_create(f, "op", -1, SDE_OPERATOR);
    long o = sde_create(op, "o", types[14], SDE_OUTPUT);
    pt_t a = {1, 2.5}, b = {3, 4.0};
    sdd_append_raw_value(o, &a);
    sdd_append_raw_value(o, nullptr);
    sdd_append_raw_value(o, &b);

    testing::internal::CaptureStdout();
    EXPECT_EQ(sdf_dump(f), 0);
    std::string out = testing::internal::GetCapturedStdout();

    std::string expected = "*** Format version: 1.1\n"
                           "*** Predefined types:\n"
                           "[0] char8\n[1] char16\n[2] char32\n[3] bool\n[4] int8\n[5] int16\n"
                           "[6] int32\n[7] int64\n[8] uint8\n[9] uint16\n[10] uint32\n[11] uint64\n"
                           "[12] float32\n[13] float64\n"
                           "*** User types:\n"
                           "[14] pt: struct {x:int32, y:float64}\n"
                           "*** Elements:\n"
                           "[15] OPERATOR op: t:none\n"
                           "    [16] OUTPUT o: t:[14]\n"
                           "*** Data:\n"
                           "[15] op: \n"
                           "[16] o: (1,2.500000) | none | (3,4.000000) | \n";
    EXPECT_EQ(out, expected);

    EXPECT_EQ(sdf_close(f), 0);
    sd_test::hook_counter closed;
    EXPECT_EQ(sdf_dump(f), -1); // a dead handle prints nothing
    EXPECT_EQ(closed.calls(), 1);
}

// Types without members print nothing between their braces, and a variant without
// constructors prints nothing at all, not even a word: its line ends in the blank
// behind the iid. Read back after reopening, so the texts come from the records.
TEST(Dump, EmptyAnonymousTypesPrintBareText)
{
    std::string path = sd_test::temp_path("empty_types.sdf");
    long const types[] = {sdt_variant_create(static_cast<unsigned long>(-1)),
                          sdt_struct_create(static_cast<unsigned long>(-1)), sdt_enum_create(SDT_INT32)};
    long f = sdf_create(path.c_str());
    char name[] = "e0";
    for (long t : types) { // each type takes an iid, then its element the next
        ASSERT_NE(sde_create(f, name, t, SDE_LOCAL), -1);
        ++name[1];
        sdt_close(t);
    }
    ASSERT_EQ(sdf_close(f), 0);

    f = sdf_open(path.c_str());
    ASSERT_NE(f, -1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(sdf_dump(f), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(sdf_close(f), 0);

    std::string const head = "*** User types:\n", tail = "*** Elements:\n";
    std::string::size_type from = out.find(head), to = out.find(tail);
    ASSERT_NE(from, std::string::npos);
    ASSERT_NE(to, std::string::npos);
    from += head.size();
    EXPECT_EQ(out.substr(from, to - from), "[14] \n[16] struct {}\n[18] enum {}\n");
}

} // namespace
