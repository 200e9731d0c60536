// Damaged files: a recorded file with every class of type is cut short and
// has bytes overwritten at many places; opening and reading each variant must
// fail cleanly or read something, and never touch memory outside an
// allocation (the sanitizer build runs this too).
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

struct sample_t {
    int tag;         // variant tag at 0
    int code;        // enum at 4
    double y;        // struct field at 8
    short arr[3];    // array at 16
};

std::string record_reference_file()
{
    std::string path = sd_test::temp_path("reference.sdf");
    long en = sdt_enum_create(SDT_INT32);
    sdt_enum_add_value(en, "on", nullptr);
    sdt_enum_add_value(en, "off", nullptr);
    unsigned long dims[1] = {3};
    long arr = sdt_array_create(SDT_INT16, 1, dims);
    long var = sdt_variant_create(24);
    sdt_variant_add_constructor(var, "none", 0, 0, 8, -1);
    sdt_variant_add_constructor(var, "some", 0, 1, 8, SDT_FLOAT64);
    long st = sdt_struct_create(sizeof(sample_t));
    sdt_struct_add_field(st, "tag", 0, SDT_INT32);
    sdt_struct_add_field(st, "code", 4, en);
    sdt_struct_add_field(st, "y", 8, SDT_FLOAT64);
    sdt_struct_add_field(st, "arr", 16, arr);
    long imp = sdt_imported_create(5);

    long f = sdf_create(path.c_str());
    long group = sde_create(f, "g", -1, SDE_OPERATOR);
    long s = sde_create(group, "s", st, SDE_OUTPUT);
    long v = sde_create(group, "v", var, SDE_PROBE);
    long i = sde_create(f, "i", imp, SDE_SENSOR);
    long d = sde_create(f, "d", SDT_FLOAT64, SDE_INPUT);
    for (int k = 0; k < 40; ++k) {
        sample_t smp = {k % 2, 1 + k % 2, k * 0.5, {short(k), short(-k), 7}};
        sdd_append_raw_value(s, k % 5 == 3 ? nullptr : &smp);
        sdd_append_raw_value(v, &smp);
        unsigned char bytes[5] = {1, 2, 3, 4, static_cast<unsigned char>(k)};
        sdd_append_raw_value(i, k % 7 == 0 ? nullptr : bytes);
        double x = k;
        sdd_append_raw_value(d, &x);
    }
    for (long t : {en, arr, var, st, imp})
        sdt_close(t);
    EXPECT_EQ(sdf_close(f), 0);
    return path;
}

// Opens the file and reads everything reachable; returns the number of
// values delivered, or -1 when the file was refused.
long read_everything(std::string const& path)
{
    long f = sdf_open(path.c_str());
    if (f == -1)
        return -1;
    long values = 0;
    std::vector<long> todo = {f};
    while (!todo.empty()) {
        long parent = todo.back();
        todo.pop_back();
        unsigned long n = sde_get_n_children(parent);
        std::vector<long> children(n);
        if (n && sde_get_children(parent, children.data()) != 0)
            continue;
        for (long e : children) {
            todo.push_back(e);
            // The caller sizes its buffer from the type, whatever the
            // damaged record claims it is.
            unsigned long size = sdt_get_size(sde_get_type(e));
            if (size > (1ul << 20))
                continue;
            std::vector<unsigned char> raw(size + 1);
            sdd_value_iter* it = nullptr;
            // A damaged stored block may raise the buffer's range error out
            // of the reader; that is a clean failure, not a memory fault.
            try {
                it = sdd_value_iter_create(e, -1);
                unsigned char none = 0, end = 0;
                for (int k = 0; it && k < 200 && !end; ++k) {
                    if (sdd_value_iter_get_raw_value(it, raw.data(), &none, &end) != 0)
                        break;
                    ++values;
                }
                if (it)
                    sdd_value_iter_restart(it);
                for (int k = 0; it && k < 200; ++k) {
                    sdd_value* val = sdd_value_iter_get_value(it);
                    if (!val)
                        break;
                    if (sdd_value_get_class(val) == SDD_VALUE_VARIANT)
                        sdd_value_close(sdd_value_get_variant_value(val));
                    sdd_value_close(val);
                }
            } catch (std::exception const&) {
            }
            sdd_value_iter_close(it);
        }
    }
    sdf_close(f);
    return values;
}

TEST(DamagedFile, TruncationsAndOverwritesNeverFaultMemory)
{
    std::string ref = record_reference_file();
    std::vector<unsigned char> bytes = sd_test::read_file(ref);
    ASSERT_GT(bytes.size(), 200u);
    EXPECT_EQ(read_everything(ref), 160);

    std::string path = sd_test::temp_path("damaged.sdf");
    // Every cut point in the header and the first records, then sparser.
    for (unsigned long cut = 0; cut < bytes.size(); cut += cut < 400 ? 1 : 37) {
        sd_test::write_file(path, std::vector<unsigned char>(bytes.begin(), bytes.begin() + cut));
        read_everything(path);
    }
    // Overwrites with values that make lengths, counts and positions lie.
    std::uint32_t seed = 12345;
    unsigned char const patterns[] = {0x00, 0xFF, 0x7F, 0x80, 0x01, 0x40};
    for (unsigned long pos = 0; pos < bytes.size(); pos += (pos < 400 ? 1 : 5)) {
        std::vector<unsigned char> damaged = bytes;
        seed = seed * 1103515245u + 12345u;
        damaged[pos] = patterns[(seed >> 16) % sizeof patterns];
        sd_test::write_file(path, damaged);
        read_everything(path);
    }
}

} // namespace
