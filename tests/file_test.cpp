// The head of a data file and the lifecycle of sd_stdio_file: the exact
// bytes of a new file, the version rule, and every refusal of a bad head.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

bytes const new_file = {'Q',  '7',  'S',  'D',  0x28, 0x46, 0x0F, 0x00, 0x80, 0x93, 0xD8, 0x6F, 0x90, 0xE1,
                        0x7D, 0x59, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The new file's bytes, or those of `b`, with `patch` written at `at`.
bytes with(unsigned long at, bytes const& patch, bytes b = new_file)
{
    std::copy(patch.begin(), patch.end(), b.begin() + at);
    return b;
}

} // namespace

TEST(FileHeader, CreateWritesExactlyTheHeaderAndVersionTextNeedsReopen)
{
    std::string const path = sd_test::temp_path("new.sd");
    sd_test::write_file(path, bytes(100, 0xAB)); // create empties what was there
    sd_stdio_file f(path.c_str(), true);
    EXPECT_STREQ(f.format_version_str(), "");
    EXPECT_EQ(f.close(), 0);
    sd_test::hook_counter hooks;
    EXPECT_EQ(f.close(), -1);
    EXPECT_EQ(hooks.calls(), 1);
    EXPECT_EQ(sd_test::read_file(path), new_file);
    sd_stdio_file again(std::wstring(path.begin(), path.end()).c_str(), false);
    EXPECT_STREQ(again.format_version_str(), "1.1");
    EXPECT_EQ(again.close(), 0);
    EXPECT_EQ(sd_test::read_file(path), new_file); // nothing pending, nothing written
    for (wchar_t const* bad : {static_cast<wchar_t const*>(nullptr), L""}) {
        sd_test::hook_counter refused;
        EXPECT_FALSE(sd_stdio_file(bad, true).is_open());
        EXPECT_EQ(refused.calls(), 1);
    }
}

TEST(FileHeader, AnyMajorOneVersionOpensAndKeepsItsNumber)
{
    std::string const path = sd_test::temp_path("version.sd");
    for (auto const& c : {std::make_pair(bytes{0x40, 0x42, 0x0F, 0x00}, "1.0"),
                          std::make_pair(bytes{0x7F, 0x84, 0x1E, 0x00}, "1.999")}) {
        sd_test::write_file(path, with(4, c.first));
        sd_stdio_file f(path.c_str(), false);
        EXPECT_STREQ(f.format_version_str(), c.second);
        ASSERT_TRUE(f.create_element("e", SDE_INPUT, nullptr, nullptr)); // extending keeps it too
        ASSERT_EQ(f.close(), 0);
        bytes head = sd_test::read_file(path);
        head.resize(40);
        EXPECT_EQ(head, with(24, {40, 0, 0, 0, 0, 0, 0, 0}, with(4, c.first)));
    }
}

TEST(FileHeader, DamagedHeadsAreRefusedWithOneHookAndLeftAlone)
{
    struct { char const* what; bytes file; } const cases[] = {
        {"empty", {}}, {"39 bytes", bytes(new_file.begin(), new_file.end() - 1)},
        {"magic 0", with(0, {'q'})}, {"magic 1", with(1, {'8'})}, {"magic 2", with(2, {'s'})},
        {"magic 3", with(3, {'E'})}, {"magic number", with(15, {0x5A})},
        {"version 999999", with(4, {0x3F, 0x42, 0x0F, 0x00})}, {"version 2000000", with(4, {0x80, 0x84, 0x1E, 0x00})},
    };
    std::string const path = sd_test::temp_path("bad.sd");
    for (auto const& c : cases) {
        sd_test::expect_refused(path, c.file, 1, c.what);
        EXPECT_EQ(sd_test::read_file(path), c.file) << c.what;
    }
    std::string const missing = sd_test::temp_path("missing.sd");
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sd_stdio_file(missing.c_str(), false).is_open());
    EXPECT_EQ(hooks.calls(), 1);
    EXPECT_FALSE(std::ifstream(missing).good()); // and creates nothing
}
