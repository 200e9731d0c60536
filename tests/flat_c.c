/* The flat header from plain C99: a file, a struct type, a series with
 * absent samples in it, and the same series read back after a reopen.
 * Exits non-zero at the first check that fails. */
#include "orva_sd.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

struct sample {
    int id;
    float gain;
    double value;
};

#define CHECK(cond)                                                                    \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                  \
        }                                                                              \
    } while (0)

enum { N = 10 };

/* Every third sample is absent. */
static bool is_gap(int i) { return i % 3 == 2; }

int main(void)
{
    char const* path = "flat_c.sdf";
    long file = sdf_create(path);
    CHECK(file != -1);

    long type = sdt_struct_create(sizeof(struct sample));
    CHECK(type != -1);
    CHECK(sdt_struct_add_field(type, "id", offsetof(struct sample, id), SDT_INT32) == 0);
    CHECK(sdt_struct_add_field(type, "gain", offsetof(struct sample, gain), SDT_FLOAT32) == 0);
    CHECK(sdt_struct_add_field(type, "value", offsetof(struct sample, value), SDT_FLOAT64) == 0);
    long sig = sde_create(file, "sig", type, SDE_SIGNAL);
    CHECK(sig != -1);
    CHECK(sdt_close(type) == 0);

    for (int i = 0; i < N; ++i) {
        struct sample s;
        memset(&s, 0, sizeof s);
        s.id = i;
        s.gain = (float)i * 0.5f;
        s.value = i * 1.25;
        CHECK(sdd_append_raw_value(sig, is_gap(i) ? NULL : &s) == 0);
    }
    CHECK(sdf_close(file) == 0);

    file = sdf_open(path);
    CHECK(file != -1);
    sig = sde_find(file, "sig");
    CHECK(sig != -1);
    CHECK(sdt_struct_get_field_offset(sde_get_type(sig), 2) == offsetof(struct sample, value));

    sdd_value_iter* it = sdd_value_iter_create(sig, -1);
    CHECK(it != NULL);
    for (int i = 0; i < N; ++i) {
        struct sample s;
        unsigned char is_none = 9, is_end = 9;
        memset(&s, 0xAB, sizeof s);
        CHECK(sdd_value_iter_get_raw_value(it, &s, &is_none, &is_end) == 0);
        CHECK(is_none == (is_gap(i) ? 1 : 0));
        CHECK(is_end == (i == N - 1 ? 1 : 0));
        if (!is_gap(i))
            CHECK(s.id == i && s.gain == (float)i * 0.5f && s.value == i * 1.25);
    }
    sdd_value_iter_close(it);
    CHECK(sdf_close(file) == 0);
    remove(path);
    return 0;
}
