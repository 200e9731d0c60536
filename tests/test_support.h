// Shared by the tests: a hook counter (the test binary defines its own
// sd_breakpoint, which interposes the library's) and scratch file paths.
#ifndef ORVA_SD_TEST_SUPPORT_H
#define ORVA_SD_TEST_SUPPORT_H

#include <cstring>
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

// The value of type T stored at `at` in a file's bytes (host order); a field
// that doesn't fit in the bytes fails the range check of at().
template <class T>
T get(std::vector<unsigned char> const& b, unsigned long at)
{
    T v;
    std::memcpy(&v, &b.at(at + sizeof(T) - 1) + 1 - sizeof(T), sizeof(T));
    return v;
}

// Writes `file` to `path` and expects the open to refuse it with `hooks`
// hook calls; `what` names the case in a failure.
void expect_refused(std::string const& path, std::vector<unsigned char> const& file, long hooks,
                    std::string const& what);

} // namespace sd_test

#endif
