// Shared by the tests: a hook counter (the test binary defines its own
// sd_breakpoint, which interposes the library's) and scratch file paths.
#ifndef ORVA_SD_TEST_SUPPORT_H
#define ORVA_SD_TEST_SUPPORT_H

#include <string>
#include <vector>

namespace sd_test {

// Number of sd_breakpoint calls since the process started.
long hook_count();

// Counts the hook calls made while it lives.
class hook_counter {
public:
    hook_counter() : start_(hook_count()) {}
    long calls() const { return hook_count() - start_; }

private:
    long start_;
};

// A fresh path in a per-process scratch directory; the file does not exist.
std::string temp_path(std::string const& name);

std::vector<unsigned char> read_file(std::string const& path);
void write_file(std::string const& path, std::vector<unsigned char> const& bytes);

} // namespace sd_test

#endif
