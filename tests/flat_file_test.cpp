// File calls: create and open in both path widths, and the version text
// that only an opened file has.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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
    std::FILE* made = std::fopen((p + ".missing").c_str(), "rb"); // open created nothing
    EXPECT_EQ(made, nullptr);
    if (made)
        std::fclose(made);
}

TEST(FlatFile, DamagedHeaderIsRefusedWithOneHook)
{
    std::string p = sd_test::temp_path("header.sdf");
    ASSERT_EQ(sdf_close(sdf_create(p.c_str())), 0);
    std::vector<unsigned char> const good = sd_test::read_file(p);
    ASSERT_EQ(good.size(), 40u);
    // One header field spoilt at a time; each refusal hooks once and the
    // stream closes without a further hook.
    struct { char const* what; unsigned long at; unsigned value, width; } const rows[] = {
        {"first magic character", 0, 'X', 1}, {"last magic character", 3, 'd', 1},
        {"version 2000000", 4, 2000000, 4}, {"version 999999", 4, 999999, 4},
        {"magic number", 8, 0, 1}};
    for (auto const& r : rows) {
        std::vector<unsigned char> bad = good;
        std::memcpy(&bad.at(r.at), &r.value, r.width); // little-endian: width 1 is the low byte
        sd_test::write_file(p, bad);
        sd_test::hook_counter hooks;
        EXPECT_EQ(sdf_open(p.c_str()), -1) << r.what;
        EXPECT_EQ(hooks.calls(), 1) << r.what;
    }
    sd_test::write_file(p, good); // the control: the untouched header opens
    long f = sdf_open(p.c_str());
    EXPECT_NE(f, -1);
    EXPECT_EQ(sdf_close(f), 0);
}
