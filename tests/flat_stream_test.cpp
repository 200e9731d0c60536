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
