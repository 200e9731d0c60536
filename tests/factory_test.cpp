// The registry behind the handles: how long a file handle stays valid, what
// two openings of one path share, and what happens at exit to a file that
// the caller never closed.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Every sample of an int16 element; absent ones read as -1.
std::vector<short> read_int16(long element)
{
    std::vector<short> out;
    sdd_value_iter* it = sdd_value_iter_create(element, SDT_INT16);
    unsigned char is_none = 0, is_end = 0;
    for (short v = 0; it && !is_end && sdd_value_iter_get_raw_value(it, &v, &is_none, &is_end) == 0;)
        out.push_back(is_none ? -1 : v);
    sdd_value_iter_close(it);
    return out;
}

long record_int16(std::string const& path, std::vector<short> const& values)
{
    long f = sdf_create(path.c_str());
    long e = sde_create(f, "s", SDT_INT16, SDE_SENSOR);
    for (short const& v : values)
        if (sdd_append_raw_value(e, v == -1 ? nullptr : &v) != 0)
            return -1;
    return e == -1 ? -1 : f;
}

} // namespace

TEST(Factory, OnePathOpenedTwiceGivesTwoIndependentFiles)
{
    std::string p = sd_test::temp_path("twice.sdf");
    ASSERT_EQ(sdf_close(record_int16(p, {7})), 0);
    long a = sdf_open(p.c_str()), b = sdf_open(p.c_str());
    ASSERT_TRUE(sdf_is_valid_id(a) && sdf_is_valid_id(b));
    EXPECT_NE(a, b);
    EXPECT_NE(sde_find(a, "s"), sde_find(b, "s")); // each opening has its own objects
    ASSERT_EQ(sdf_close(a), 0);
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sdf_is_valid_id(a)); // a stale handle is still a number, but no file
    EXPECT_FALSE(sdf_is_valid_id(-1));
    EXPECT_EQ(hooks.calls(), 0);
    EXPECT_EQ(sdf_close(a), -1); // only closing an unknown handle runs the hook
    EXPECT_EQ(hooks.calls(), 1);
    EXPECT_EQ(read_int16(sde_find(b, "s")), std::vector<short>{7});
    EXPECT_EQ(sdf_close(b), 0);
}

TEST(FactoryDeathTest, FileLeftOpenIsFlushedAtExit)
{
    std::string p = sd_test::temp_path("left_open.sdf");
    EXPECT_EXIT(std::exit(record_int16(p, {1, 2, 3, -1}) == -1 ? 1 : 0), ::testing::ExitedWithCode(0), "");
    long f = sdf_open(p.c_str());
    EXPECT_EQ(read_int16(sde_find(f, "s")), (std::vector<short>{1, 2, 3, -1}));
    EXPECT_EQ(sdf_close(f), 0);
}
