// Stream calls: raw samples, values and sequences appended and read back through the
// iterators, whole or by part, and the refusals of untyped elements and null objects.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

// An address no type has: as a type handle it names nothing, without a hook.
long const kNoType = 0x1234560;

class FlatStream : public ::testing::Test {
protected:
    void TearDown() override { sdf_close(file); }

    // Every sample as an int read raw, absent ones as -1; closes the iterator.
    static std::vector<int> read_all(sdd_value_iter* it)
    {
        std::vector<int> out;
        unsigned char is_none = 0, is_end = 0;
        for (int v = 0; it && !is_end && sdd_value_iter_get_raw_value(it, &v, &is_none, &is_end) == 0;)
            out.push_back(is_none ? -1 : v);
        sdd_value_iter_close(it);
        return out;
    }

    long file = sdf_create(sd_test::temp_path("stream.sdf").c_str());
};

} // namespace

TEST_F(FlatStream, RawValueAndSequenceAppendsReadBackWithAbsentSamples)
{
    long e = sde_create(file, "e", SDT_INT32, SDE_INPUT), r = sde_create(file, "r", SDT_INT32, SDE_PROBE);
    int one = 1;
    sdd_value* vals[] = {sdd_value_create_none(), sdd_value_create_predef_int32(1), sdd_value_create_predef_int32(2),
                         sdd_value_create_predef_int64(3)};
    sdd_sequence* seqs[] = {sdd_sequence_create_values(SDT_INT32, 2, vals + 1, 3), sdd_sequence_create_nones(2),
                            sdd_sequence_create_values(SDT_INT16, 0, nullptr, 1)};
    EXPECT_EQ(sdd_append_raw_value(e, &one), 0);
    EXPECT_EQ(sdd_append_raw_value(e, nullptr), 0);
    EXPECT_EQ(sdd_append_value(e, vals[0]), 0);
    EXPECT_EQ(sdd_append_value(e, vals[2]), 0);
    EXPECT_EQ(sdd_append_sequence(r, seqs[0]), 0);
    EXPECT_EQ(sdd_append_sequence(r, seqs[1]), 0);
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdd_append_value(e, vals[3]), -1);    // values are not converted
    EXPECT_EQ(sdd_append_sequence(r, seqs[2]), -1); // nor sequences, and the copy doesn't leak
    EXPECT_EQ(hooks.calls(), 2);
    EXPECT_EQ(read_all(sdd_value_iter_create(r, -1)), (std::vector<int>{1, 2, 1, 2, 1, 2, -1, -1}));
    sdd_value* back[2] = {};
    int second = 0; // one repetition comes back as values, from the caller's own object
    EXPECT_EQ(sdd_sequence_get_values_values(seqs[0], back), 0);
    EXPECT_TRUE(sdd_value_get_predef_int32(back[1], &second) == 0 && second == 2);
    sdd_sequence_iter* si = sdd_sequence_iter_create(r); // the repetition is stored as such
    sdd_sequence* first = sdd_sequence_iter_get_sequence(si);
    EXPECT_EQ(sdd_sequence_get_repeat_factor(first), 3u);
    sdd_sequence_iter_close(si);
    sdd_sequence_close(first);
    // A wider memory type sets the stride; absent places are left alone.
    sdd_value_iter* it = sdd_value_iter_create(e, SDT_INT64);
    std::int64_t dst[5] = {-9, -9, -9, -9, -9};
    unsigned char is_none[5];
    EXPECT_EQ(sdd_value_iter_get_raw_values(it, 5, dst, is_none), 4u);
    EXPECT_EQ(std::vector<std::int64_t>(dst, dst + 5), (std::vector<std::int64_t>{1, -9, -9, 2, -9}));
    ASSERT_EQ(sdd_value_iter_restart(it), 0);
    EXPECT_EQ(sdd_value_iter_set_value(it, vals[0]), 0); // 1 becomes absent
    EXPECT_EQ(read_all(sdd_value_iter_create(e, -1)), (std::vector<int>{-1, -1, -1, 2}));
    sdd_value_iter_close(it);
    for (sdd_value* v : {vals[0], vals[1], vals[2], vals[3], back[0], back[1]})
        sdd_value_close(v);
    for (sdd_sequence* s : seqs)
        sdd_sequence_close(s);
}

TEST_F(FlatStream, UntypedElementsNullObjectsAndRampsAreRefused)
{
    long g = sde_create(file, "g", -1, SDE_OPERATOR);
    int x = 5;
    sdd_value* v = sdd_value_create_predef_int32(1);
    sdd_sequence* nones = sdd_sequence_create_nones(3);
    sdd_value* out[3] = {};
    sd_test::hook_counter hooks;
    sdd_value_iter_close(nullptr);
    sdd_sequence_iter_close(nullptr);
    EXPECT_EQ(sdd_sequence_create_ramp(SDT_INT32, 4, v, v), nullptr);
    EXPECT_EQ(sdd_sequence_get_ramp_first(nones), nullptr);
    EXPECT_EQ(sdd_sequence_get_ramp_last(nones), nullptr);
    EXPECT_EQ(hooks.calls(), 0);
    EXPECT_EQ(sdd_value_iter_set_raw_value(nullptr, &x), 0); // success, after the hook
    EXPECT_EQ(sdd_value_iter_seek(nullptr, 1), -1);
    EXPECT_EQ(sdd_value_iter_get_raw_values(nullptr, 1, &x, nullptr), 0u);
    EXPECT_EQ(sdd_value_iter_get_value(nullptr), nullptr);
    EXPECT_EQ(sdd_value_iter_set_value(nullptr, v), -1);
    EXPECT_EQ(sdd_value_iter_get_file_type(nullptr), -1);
    EXPECT_EQ(sdd_sequence_iter_get_sequence(nullptr), nullptr);
    EXPECT_EQ(sdd_sequence_get_values_values(nones, out), -1);
    EXPECT_EQ(sdd_sequence_create_values(-1, 1, &v, 1), nullptr); // the resolver hooks too
    EXPECT_EQ(hooks.calls(), 10);
    EXPECT_EQ(sdd_append_raw_value(g, &x), -1);
    EXPECT_EQ(sdd_append_value(g, v), -1);
    EXPECT_EQ(sdd_append_sequence(g, nones), -1);
    EXPECT_EQ(sdd_value_iter_create(g, SDT_INT32), nullptr);
    EXPECT_EQ(sdd_sequence_iter_create(g), nullptr);
    EXPECT_EQ(sdd_append_raw_value(0, nullptr), -1);
    EXPECT_EQ(hooks.calls(), 16);
    EXPECT_EQ(out[0], nullptr);
    sdd_value_close(v);
    sdd_sequence_close(nones);
}

TEST_F(FlatStream, StructImagesArePaddedAndPartsReadAlone)
{
    // Bytes 8 to 15 belong to no field: the stored value stops at 8, yet a raw
    // read takes the struct's 16 and zero-fills what was never stored.
    long st = sdt_struct_create(16);
    sdt_struct_add_field(st, "a", 0, SDT_INT16);
    sdt_struct_add_field(st, "b", 4, SDT_INT32);
    long s = sde_create(file, "s", st, SDE_OUTPUT);
    sdd_value* kids[] = {sdd_value_create_predef_int16(7), sdd_value_create_predef_int32(9)};
    sdd_value* value = sdd_value_create_list(2, kids);
    ASSERT_EQ(sdd_append_value(s, value), 0);
    sdd_value_close(value);
    sdd_value_iter* whole = sdd_value_iter_create(s, -1);
    std::vector<unsigned char> image(16, 0xEE);
    unsigned char is_none = 1, is_end = 0;
    EXPECT_EQ(sdd_value_iter_get_raw_value(whole, image.data(), &is_none, &is_end), 0);
    EXPECT_EQ(image, (std::vector<unsigned char>{7, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    sdd_value_iter_close(whole);
    // A memory type handle that names nothing means the part's own type.
    sdd_value_iter* part = sdd_value_iter_create_part(file, "s.b", kNoType);
    EXPECT_EQ(sdd_value_iter_get_mem_type(part), SDT_INT32);
    EXPECT_EQ(read_all(part), std::vector<int>{9});
    sd_test::hook_counter hooks;
    EXPECT_EQ(sdd_value_iter_create_part(-1, "s.b", SDT_INT32), nullptr);
    EXPECT_EQ(sdd_value_iter_create_part(file, "s.zz", SDT_INT32), nullptr);
    EXPECT_EQ(hooks.calls(), 2);
    sdt_close(st);
}

TEST_F(FlatStream, PartIteratorsFollowAFieldAndAConstructorThroughASeries)
{
    // A struct of x at 0 and a 16-byte variant v at 8, whose tag stands at its
    // start and whose payload at its offset 8: the tag sits at 8 of the struct
    // and the payload at 16.
    long vt = sdt_variant_create(16);
    ASSERT_EQ(sdt_variant_add_constructor(vt, "c", 0, 2, 8, SDT_INT32), 0);
    ASSERT_EQ(sdt_variant_add_constructor(vt, "d", 0, 1, 8, SDT_INT16), 0);
    long st = sdt_struct_create(24);
    ASSERT_EQ(sdt_struct_add_field(st, "x", 0, SDT_INT32), 0);
    ASSERT_EQ(sdt_struct_add_field(st, "v", 8, vt), 0);
    long s = sde_create(file, "s", st, SDE_OUTPUT);
    ASSERT_NE(s, -1);
    struct image {
        std::int32_t x, pad0, tag, pad1;
        std::int32_t payload, pad2; // an int16 payload is the low half, little-endian
    };
    static_assert(sizeof(image) == 24, "the struct's layout");
    image const samples[] = {{10, 0, 2, 0, 7, 0}, {30, 0, 1, 0, 5, 0}, {40, 0, 2, 0, 9, 0}};
    ASSERT_EQ(sdd_append_raw_value(s, &samples[0]), 0);
    ASSERT_EQ(sdd_append_raw_value(s, nullptr), 0);
    ASSERT_EQ(sdd_append_raw_value(s, &samples[1]), 0);
    ASSERT_EQ(sdd_append_raw_value(s, &samples[2]), 0);
    // The field is present wherever the struct is; the constructor only where the
    // tag selects it, and then its payload is read, not the tag.
    EXPECT_EQ(read_all(sdd_value_iter_create_part(file, "s.x", -1)), (std::vector<int>{10, -1, 30, 40}));
    EXPECT_EQ(read_all(sdd_value_iter_create_part(file, "s.v.c", -1)), (std::vector<int>{7, -1, -1, 9}));
    EXPECT_EQ(read_all(sdd_value_iter_create_part(file, "s.v.d", SDT_INT32)), (std::vector<int>{-1, -1, 5, -1}));
    sdt_close(st);
    sdt_close(vt);
}

TEST_F(FlatStream, FindPartGivesOffsetsInArraysOfStructsAndRows)
{
    long pt = sdt_struct_create(16);
    sdt_struct_add_field(pt, "x", 4, SDT_INT32);
    sdt_struct_add_field(pt, "y", 8, SDT_FLOAT64);
    unsigned long const four[] = {4}, two_three[] = {2, 3};
    long arr = sdt_array_create(pt, 1, four), grid = sdt_array_create(SDT_INT16, 2, two_three);
    long a = sde_create(file, "a", arr, SDE_LOCAL), m = sde_create(file, "m", grid, SDE_LOCAL);
    ASSERT_NE(a, -1);
    ASSERT_NE(m, -1);
    struct { char const* path; long element, type; unsigned long offset; } const rows[] = {
        {"a[2].y", a, SDT_FLOAT64, 2 * 16 + 8}, {"a[3].x", a, SDT_INT32, 3 * 16 + 4},
        {"a[1]", a, pt, 16}, {"m[1][2]", m, SDT_INT16, (3 + 2) * 2}};
    for (auto const& r : rows) {
        char const* tail = nullptr;
        long type = -1;
        unsigned long offset = 99;
        EXPECT_EQ(sde_find_part(file, r.path, &tail, &type, &offset), r.element) << r.path;
        EXPECT_EQ(type, r.type) << r.path;
        EXPECT_EQ(offset, r.offset) << r.path;
        EXPECT_EQ(tail, r.path + 1) << r.path; // the projections start behind the one-letter name
    }
    // A row of the grid: its type is a temporary with no lasting handle, so only
    // the element and the offset of three int16 per row count.
    char const* tail = nullptr;
    long type = -1;
    unsigned long offset = 99;
    EXPECT_EQ(sde_find_part(file, "m[1]", &tail, &type, &offset), m);
    EXPECT_EQ(offset, 6u);
    sdt_close(arr);
    sdt_close(grid);
    sdt_close(pt);
}
