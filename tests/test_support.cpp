#include "test_support.h"

#include "sd_stdio_file.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

static std::atomic<long> g_hook_calls{0};

// Interposes the library's empty hook: every failure path of the library
// lands here through the dynamic symbol table.
void sd_breakpoint()
{
    ++g_hook_calls;
}

namespace sd_test {

long hook_count()
{
    return g_hook_calls.load();
}

std::string temp_path(std::string const& name)
{
    static std::string dir = [] {
        char templ[] = "/tmp/orva_sd_test_XXXXXX";
        char* d = mkdtemp(templ);
        return std::string(d ? d : "/tmp");
    }();
    static int counter = 0;
    std::string p = dir + "/" + std::to_string(++counter) + "_" + name;
    std::remove(p.c_str());
    return p;
}

std::vector<unsigned char> read_file(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

void write_file(std::string const& path, std::vector<unsigned char> const& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void expect_refused(std::string const& path, std::vector<unsigned char> const& file, long hooks,
                    std::string const& what)
{
    write_file(path, file);
    hook_counter counter;
    EXPECT_FALSE(orva_sd::sd_stdio_file(path.c_str(), false).is_open()) << what;
    EXPECT_EQ(counter.calls(), hooks) << what;
}

} // namespace sd_test
