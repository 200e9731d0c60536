// Copying a series run by run: what a sequence iterator hands out goes
// straight into another element, in the same file or another one, and
// keeps its shape (classes, counts, repeat factors) and its values.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using shape_t = std::vector<std::tuple<int, unsigned long, unsigned long>>;

shape_t shape_of(long element)
{
    shape_t shape;
    sdd_sequence_iter* it = sdd_sequence_iter_create(element);
    while (sdd_sequence* s = sdd_sequence_iter_get_sequence(it)) {
        shape.emplace_back(sdd_sequence_get_class(s), sdd_sequence_get_count(s),
                           sdd_sequence_get_repeat_factor(s));
        sdd_sequence_close(s);
    }
    sdd_sequence_iter_close(it);
    return shape;
}

// Present values as themselves, absent ones as -1.
std::vector<long> values_of(long element)
{
    std::vector<long> out;
    sdd_value_iter* it = sdd_value_iter_create(element, SDT_INT64);
    long v = 0;
    unsigned char none = 0, end = 0;
    while (!end && sdd_value_iter_get_raw_value(it, &v, &none, &end) == 0)
        out.push_back(none ? -1 : v);
    sdd_value_iter_close(it);
    return out;
}

void copy_series(long from, long to)
{
    sdd_sequence_iter* it = sdd_sequence_iter_create(from);
    while (sdd_sequence* s = sdd_sequence_iter_get_sequence(it)) {
        EXPECT_EQ(sdd_append_sequence(to, s), 0);
        sdd_sequence_close(s);
    }
    sdd_sequence_iter_close(it);
}

TEST(CopySeries, KeepsItsShapeWithinAndAcrossFiles)
{
    std::string src_path = sd_test::temp_path("src.sdf"), dst_path = sd_test::temp_path("dst.sdf");
    long src = sdf_create(src_path.c_str());
    long a = sde_create(src, "a", SDT_INT32, SDE_SENSOR);
    // Enough values for several stored blocks, then absent runs, a repeated
    // group and a tail that stays in memory until close.
    for (int i = 0; i < 600000; ++i)
        sdd_append_raw_value(a, i % 1000 == 999 ? nullptr : &i);
    sdd_value* group[2] = {sdd_value_create_predef_int32(7), sdd_value_create_predef_int32(8)};
    sdd_sequence* repeated = sdd_sequence_create_values(SDT_INT32, 2, group, 4);
    ASSERT_EQ(sdd_append_sequence(a, repeated), 0);
    sdd_sequence_close(repeated);
    for (sdd_value* v : group)
        sdd_value_close(v);
    // Led by an absent value: a present one would join the repeated group.
    for (int i = 0; i < 5; ++i)
        sdd_append_raw_value(a, i % 2 ? &i : nullptr);
    ASSERT_EQ(sdf_close(src), 0);

    src = sdf_open(src_path.c_str());
    a = sde_find(src, "a");
    shape_t shape = shape_of(a);
    std::vector<long> values = values_of(a);
    ASSERT_EQ(values.size(), 600000u + 8u + 5u);
    EXPECT_EQ(values[999], -1);
    EXPECT_EQ(std::vector<long>(values.begin() + 600000, values.end()),
              (std::vector<long>{7, 8, 7, 8, 7, 8, 7, 8, -1, 1, -1, 3, -1}));

    long same = sde_create(src, "same", SDT_INT32, SDE_SENSOR);
    long dst = sdf_create(dst_path.c_str());
    long other = sde_create(dst, "other", SDT_INT32, SDE_SENSOR);
    copy_series(a, same);
    copy_series(a, other);
    ASSERT_EQ(sdf_close(src), 0);
    ASSERT_EQ(sdf_close(dst), 0);

    src = sdf_open(src_path.c_str());
    dst = sdf_open(dst_path.c_str());
    for (long e : {sde_find(src, "same"), sde_find(dst, "other")}) {
        EXPECT_EQ(shape_of(e), shape);
        EXPECT_EQ(values_of(e), values);
    }
    // A series doesn't cross over to another type: the sequence is refused
    // and the target is left as it was.
    long t = sde_create(dst, "t", SDT_INT16, SDE_SENSOR);
    sdd_sequence_iter* it = sdd_sequence_iter_create(sde_find(src, "same"));
    sdd_sequence* s = sdd_sequence_iter_get_sequence(it);
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdd_append_sequence(t, s), -1);
    EXPECT_EQ(hooks.calls(), 1);
    EXPECT_TRUE(shape_of(t).empty());
    sdd_sequence_close(s);
    sdd_sequence_iter_close(it);
    sdf_close(src);
    sdf_close(dst);
}

} // namespace
