/* A small recording session from start to finish: a tree of elements under
 * one operator, a struct type, a few signals with gaps in them, one sample
 * corrected in place; then the file reopened, one struct field followed
 * through the series by its path, and the whole file dumped.
 *
 * Usage: record_and_dump [path]     (default: example.sdf in the current dir)
 */
#include "orva_sd.h"

#include <stddef.h>
#include <stdio.h>

/* The caller's own memory layout is what the file stores. */
struct pose {
    int frame;
    float x;
    double heading;
};

static int fail(char const* what)
{
    fprintf(stderr, "record_and_dump: %s failed\n", what);
    return 1;
}

int main(int argc, char** argv)
{
    char const* path = argc > 1 ? argv[1] : "example.sdf";
    long file = sdf_create(path);
    if (file == -1)
        return fail("sdf_create");

    long pose = sdt_struct_create(sizeof(struct pose));
    if (pose == -1 || sdt_set_name(pose, "pose") != 0
        || sdt_struct_add_field(pose, "frame", offsetof(struct pose, frame), SDT_INT32) != 0
        || sdt_struct_add_field(pose, "x", offsetof(struct pose, x), SDT_FLOAT32) != 0
        || sdt_struct_add_field(pose, "heading", offsetof(struct pose, heading), SDT_FLOAT64) != 0)
        return fail("building the pose type");

    /* A type handle of -1 makes a pure grouping element. */
    long ctl = sde_create(file, "controller", -1, SDE_OPERATOR);
    long speed = sde_create(ctl, "speed", SDT_FLOAT64, SDE_INPUT);
    long gear = sde_create(ctl, "gear", SDT_INT8, SDE_OUTPUT);
    long where = sde_create(ctl, "pose", pose, SDE_LOCAL);
    if (ctl == -1 || speed == -1 || gear == -1 || where == -1)
        return fail("building the element tree");
    /* The file now holds the type; the caller's handle stays valid through it. */
    sdt_close(pose);

    for (int i = 0; i < 8; ++i) {
        double v = 10.0 + i * 0.5;
        signed char g = (signed char)(1 + i / 3);
        struct pose p = {i, (float)i * 0.25f, i * 45.0};
        /* A null sample is an absent one: speed misses every third value,
         * pose has a gap at 5. */
        if (sdd_append_raw_value(speed, i % 3 == 2 ? NULL : &v) != 0
            || sdd_append_raw_value(gear, &g) != 0
            || sdd_append_raw_value(where, i == 5 ? NULL : &p) != 0)
            return fail("appending samples");
    }

    /* Correct sample 3 of pose in place. */
    struct pose fixed = {3, 0.8f, 180.0};
    sdd_value_iter* it = sdd_value_iter_create(where, -1);
    if (!it || sdd_value_iter_seek(it, 3) != 0 || sdd_value_iter_set_raw_value(it, &fixed) != 0)
        return fail("editing a sample");
    /* Iterators go before their file. */
    sdd_value_iter_close(it);
    if (sdf_close(file) != 0)
        return fail("sdf_close");

    file = sdf_open(path);
    if (file == -1)
        return fail("sdf_open");
    it = sdd_value_iter_create_part(file, "controller/pose.heading", SDT_FLOAT64);
    if (!it)
        return fail("sdd_value_iter_create_part");
    printf("controller/pose.heading:");
    for (;;) {
        double h = 0;
        unsigned char is_none = 0, is_end = 0;
        if (sdd_value_iter_get_raw_value(it, &h, &is_none, &is_end) != 0)
            return fail("reading pose.heading");
        if (is_none)
            printf(" -");
        else
            printf(" %.1f", h);
        if (is_end)
            break;
    }
    printf("\n");
    fflush(stdout);
    sdd_value_iter_close(it);

    if (sdf_dump(file) != 0)
        return fail("sdf_dump");
    if (sdf_close(file) != 0)
        return fail("sdf_close");
    return 0;
}
