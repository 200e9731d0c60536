/* The example of the README, kept compiling and passing as a test. */
#include "orva_sd.h"

#include <stdio.h>

struct point {      /* the caller's own memory layout */
    int x;          /* offset 0 */
    double y;       /* offset 8 */
};

int main(void)
{
    const char* path = "readme_example.sdf";

    /* A struct type describing struct point, and a file with one element. */
    long pt = sdt_struct_create(sizeof(struct point));
    sdt_set_name(pt, "point");
    sdt_struct_add_field(pt, "x", 0, SDT_INT32);
    sdt_struct_add_field(pt, "y", 8, SDT_FLOAT64);

    long file = sdf_create(path);
    long group = sde_create(file, "plant", -1, SDE_OPERATOR);
    long pos = sde_create(group, "pos", pt, SDE_OUTPUT);
    sdt_close(pt); /* the file keeps the stored type alive */

    /* Three samples, the second one absent. */
    struct point p1 = {1, 2.5}, p3 = {3, 4.0};
    sdd_append_raw_value(pos, &p1);
    sdd_append_raw_value(pos, NULL);
    sdd_append_raw_value(pos, &p3);
    sdf_close(file);

    /* Read one field back through a path, converted to float. */
    file = sdf_open(path);
    sdd_value_iter* it = sdd_value_iter_create_part(file, "plant/pos.y", SDT_FLOAT32);
    float y;
    unsigned char absent, end = 0;
    int n = 0;
    while (!end && sdd_value_iter_get_raw_value(it, &y, &absent, &end) == 0) {
        if (absent)
            printf("sample %d: absent\n", n);
        else
            printf("sample %d: y = %g\n", n, y);
        ++n;
    }
    sdd_value_iter_close(it);

    sdf_dump(file);
    sdf_close(file);
    return n == 3 ? 0 : 1;
}
