// File calls: create and open in both path widths, and the version text
// that only an opened file has.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>

TEST(FlatFile, VersionTextIsEmptyUntilReopened)
{
    std::string p = sd_test::temp_path("version.sdf");
    std::wstring wp(p.begin(), p.end());
    long f = sdf_wcreate(wp.c_str());
    ASSERT_NE(f, -1);
    EXPECT_STREQ(sdf_get_format_version(f), "");
    ASSERT_EQ(sdf_close(f), 0);
    for (long g : {sdf_open(p.c_str()), sdf_wopen(wp.c_str())}) {
        ASSERT_NE(g, -1);
        EXPECT_STREQ(sdf_get_format_version(g), "1.1");
        ASSERT_EQ(sdf_close(g), 0);
    }
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdf_get_format_version(f), nullptr);
    EXPECT_EQ(sdf_dump(f), -1);
    EXPECT_EQ(sdf_open((p + ".missing").c_str()), -1);
    EXPECT_EQ(hooks.calls(), 3); // the failed open hooks inside the file only
}
