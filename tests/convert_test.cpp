// Scalar conversion between the fourteen kinds: every source kind against
// every target kind, with the widening, truncation, float range and rounding
// results pinned to literal bit patterns.
#include "sd_converter.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

using namespace orva_sd;

namespace {

using k = sd_predefined_type_kind;

// Widths of kinds 0..13, written out here rather than taken from the library.
constexpr unsigned width[14] = {1, 2, 4, 1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};

// Bit patterns of a float32 and a float64.
std::uint64_t F(float f) { std::uint32_t b; std::memcpy(&b, &f, 4); return b; }
std::uint64_t D(double d) { std::uint64_t b; std::memcpy(&b, &d, 8); return b; }

struct conv_row {
    k from;
    std::uint64_t src; // bit pattern of the source, low bytes used
    // Expected bit pattern per target kind, in kind order:
    // char8 char16 char32 bool | int8 int16 int32 int64 | uint8 uint16 uint32 uint64 | f32 f64
    std::array<std::uint64_t, 14> want;
};

constexpr std::uint64_t ALL = 0xFFFFFFFFFFFFFFFF;
constexpr std::uint64_t MIN64 = 0x8000000000000000;

// clang-format off
const conv_row rows[] = {
    // unsigned 8-bit group: zero-extended everywhere
    {SD_KIND_CHAR8, 0xC8, {0xC8, 0xC8, 0xC8, 1, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, F(200), D(200)}},
    {SD_KIND_UINT8, 0xC8, {0xC8, 0xC8, 0xC8, 1, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, 0xC8, F(200), D(200)}},
    {SD_KIND_UINT8, 0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, F(0), D(0)}},
    // a bool holding 2 is the number 2 to everything but bool
    {SD_KIND_BOOL, 0x02, {2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 2, 2, F(2), D(2)}},
    // unsigned 16-bit group
    {SD_KIND_CHAR16, 0xFF85, {0x85, 0xFF85, 0xFF85, 1, 0x85, 0xFF85, 0xFF85, 0xFF85, 0x85, 0xFF85, 0xFF85, 0xFF85, F(65413), D(65413)}},
    // bool looks at the whole width, not at the low byte
    {SD_KIND_UINT16, 0x0100, {0, 0x100, 0x100, 1, 0, 0x100, 0x100, 0x100, 0, 0x100, 0x100, 0x100, F(256), D(256)}},
    // unsigned 32-bit group: float targets see an unsigned number
    {SD_KIND_CHAR32, 0x1F600, {0, 0xF600, 0x1F600, 1, 0, 0xF600, 0x1F600, 0x1F600, 0, 0xF600, 0x1F600, 0x1F600, F(128512), D(128512)}},
    {SD_KIND_UINT32, 0xFFFFFFFF, {0xFF, 0xFFFF, 0xFFFFFFFF, 1, 0xFF, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFF, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, F(4294967296.0f), D(4294967295.0)}},
    // bool looks at the whole width here too: a zero low byte under set high bits is true
    {SD_KIND_INT16, 0x0100, {0, 0x100, 0x100, 1, 0, 0x100, 0x100, 0x100, 0, 0x100, 0x100, 0x100, F(256), D(256)}},
    {SD_KIND_INT32, 0x00010000, {0, 0, 0x10000, 1, 0, 0, 0x10000, 0x10000, 0, 0, 0x10000, 0x10000, F(65536), D(65536)}},
    {SD_KIND_INT64, 1ull << 40, {0, 0, 0, 1, 0, 0, 0, 1ull << 40, 0, 0, 0, 1ull << 40, F(1099511627776.0f), D(1099511627776.0)}},
    {SD_KIND_UINT64, MIN64, {0, 0, 0, 1, 0, 0, 0, MIN64, 0, 0, 0, MIN64, F(9223372036854775808.0f), D(9223372036854775808.0)}},
    // signed sources: sign-extended, also into unsigned targets
    {SD_KIND_INT8, 0xFF, {0xFF, 0xFFFF, 0xFFFFFFFF, 1, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, F(-1), D(-1)}},
    {SD_KIND_INT8, 0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, F(0), D(0)}},
    {SD_KIND_INT16, 0x8085, {0x85, 0x8085, 0xFFFF8085, 1, 0x85, 0x8085, 0xFFFF8085, 0xFFFFFFFFFFFF8085, 0x85, 0x8085, 0xFFFF8085, 0xFFFFFFFFFFFF8085, F(-32635), D(-32635)}},
    {SD_KIND_INT32, 0x80808085, {0x85, 0x8085, 0x80808085, 1, 0x85, 0x8085, 0x80808085, 0xFFFFFFFF80808085, 0x85, 0x8085, 0x80808085, 0xFFFFFFFF80808085, F(-2139062144.0f), D(-2139062139.0)}},
    {SD_KIND_INT64, 0x8080808080808085, {0x85, 0x8085, 0x80808085, 1, 0x85, 0x8085, 0x80808085, 0x8080808080808085, 0x85, 0x8085, 0x80808085, 0x8080808080808085, F(-9187201952591642624.0f), D(-9187201950435737600.0)}},
    // unsigned 64 bits: top bit set goes through the shift with a sticky bit
    {SD_KIND_UINT64, ALL, {0xFF, 0xFFFF, 0xFFFFFFFF, 1, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, F(18446744073709551616.0f), D(18446744073709551616.0)}},
    // 2^63 + 1025: above the halfway point of a double's ulp, so it rounds up
    {SD_KIND_UINT64, 0x8000000000000401, {0x01, 0x401, 0x401, 1, 0x01, 0x401, 0x401, 0x8000000000000401, 0x01, 0x401, 0x401, 0x8000000000000401, F(9223372036854775808.0f), D(9223372036854777856.0)}},
    // 2^63 + 2^39 + 1: the same for a float32
    {SD_KIND_UINT64, 0x8000008000000001, {0x01, 0x01, 0x01, 1, 0x01, 0x01, 0x01, 0x8000008000000001, 0x01, 0x01, 0x01, 0x8000008000000001, F(9223373136366403584.0f), D(9223372586610589696.0)}},
    // top bit clear: 2^53 + 1 is a tie and goes to even
    {SD_KIND_UINT64, 0x20000000000001, {0x01, 0x01, 0x01, 1, 0x01, 0x01, 0x01, 0x20000000000001, 0x01, 0x01, 0x01, 0x20000000000001, F(9007199254740992.0f), D(9007199254740992.0)}},

    // float sources: 8 and 16 bits through int32, kinds 2 and 10 through int64
    {SD_KIND_FLOAT32, F(300.7f), {44, 300, 300, 1, 44, 300, 300, 300, 44, 300, 300, 300, F(300.7f), D(300.70001220703125)}},
    {SD_KIND_FLOAT32, F(-1.5f), {0xFF, 0xFFFF, 0xFFFFFFFF, 1, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, 0xFF, 0xFFFF, 0xFFFFFFFF, ALL, F(-1.5f), D(-1.5)}},
    {SD_KIND_FLOAT32, F(4294967296.0f), {0, 0, 0, 1, 0, 0, 0x80000000, 0x100000000, 0, 0, 0, 0x100000000, F(4294967296.0f), D(4294967296.0)}},
    {SD_KIND_FLOAT32, 0x7F800000, {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0, 0x7F800000, 0x7FF0000000000000}},
    {SD_KIND_FLOAT32, 0xFF800000, {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, MIN64, 0xFF800000, 0xFFF0000000000000}},
    {SD_KIND_FLOAT32, 0x7FC00000, {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, MIN64, 0x7FC00000, 0x7FF8000000000000}},
    {SD_KIND_FLOAT32, 0x80000000, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80000000, 0x8000000000000000}},
    {SD_KIND_FLOAT64, D(3000000000.0), {0, 0, 0xB2D05E00, 1, 0, 0, 0x80000000, 0xB2D05E00, 0, 0, 0xB2D05E00, 0xB2D05E00, F(3000000000.0f), D(3000000000.0)}},
    {SD_KIND_FLOAT64, D(-3000000000.0), {0, 0, 0x4D2FA200, 1, 0, 0, 0x80000000, 0xFFFFFFFF4D2FA200, 0, 0, 0x4D2FA200, 0xFFFFFFFF4D2FA200, F(-3000000000.0f), D(-3000000000.0)}},
    {SD_KIND_FLOAT64, D(1e20), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0, 0x60AD78EC, D(1e20)}},
    {SD_KIND_FLOAT64, D(1.5e19), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0xD02AB486CEDC0000, 0x5F502AB5, D(1.5e19)}},
    {SD_KIND_FLOAT64, D(9223372036854775808.0), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, MIN64, 0x5F000000, D(9223372036854775808.0)}},
    {SD_KIND_FLOAT64, D(18446744073709551616.0), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0, 0x5F800000, D(18446744073709551616.0)}},
    // the largest double below 2^63 is still a valid int64
    {SD_KIND_FLOAT64, D(9223372036854774784.0), {0, 0, 0xFFFFFC00, 1, 0, 0, 0x80000000, 0x7FFFFFFFFFFFFC00, 0, 0, 0xFFFFFC00, 0x7FFFFFFFFFFFFC00, 0x5F000000, D(9223372036854774784.0)}},
    // int32 boundaries, seen through the low bits of the narrow targets
    {SD_KIND_FLOAT64, D(2147483647.9), {0xFF, 0xFFFF, 0x7FFFFFFF, 1, 0xFF, 0xFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 0xFF, 0xFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 0x4F000000, D(2147483647.9)}},
    {SD_KIND_FLOAT64, D(2147483648.0), {0, 0, 0x80000000, 1, 0, 0, 0x80000000, 0x80000000, 0, 0, 0x80000000, 0x80000000, 0x4F000000, D(2147483648.0)}},
    {SD_KIND_FLOAT64, D(-2147483649.0), {0, 0, 0x7FFFFFFF, 1, 0, 0, 0x80000000, 0xFFFFFFFF7FFFFFFF, 0, 0, 0x7FFFFFFF, 0xFFFFFFFF7FFFFFFF, 0xCF000000, D(-2147483649.0)}},
    {SD_KIND_FLOAT64, 0x7FF8000000000000, {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, MIN64, 0x7FC00000, 0x7FF8000000000000}},
    {SD_KIND_FLOAT64, D(-0.0), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80000000, 0x8000000000000000}},
    {SD_KIND_FLOAT64, D(0.1), {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x3DCCCCCD, D(0.1)}},
    // float64 to float32 near the top: FLT_MAX until half an ulp above it
    {SD_KIND_FLOAT64, D(0x1.fffffefp127), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0, 0x7F7FFFFF, D(0x1.fffffefp127)}},
    {SD_KIND_FLOAT64, D(0x1.ffffffp127), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, 0, 0x7F800000, D(0x1.ffffffp127)}},
    {SD_KIND_FLOAT64, D(-1e300), {0, 0, 0, 1, 0, 0, 0x80000000, MIN64, 0, 0, 0, MIN64, 0xFF800000, D(-1e300)}},
};
// clang-format on

std::string hex(std::uint64_t v)
{
    char b[24];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    return b;
}

} // namespace

TEST(Convert, EverySourceGroupToEveryTarget)
{
    for (conv_row const& r : rows) {
        for (int to = 0; to < 14; ++to) {
            unsigned char src[8] = {}, out[16];
            std::memcpy(src, &r.src, width[r.from]);
            std::memset(out, 0xAA, sizeof out);
            sd_predefined_convert(src, r.from, out, static_cast<k>(to));
            std::uint64_t got = 0;
            std::memcpy(&got, out, width[to]);
            EXPECT_EQ(hex(got), hex(r.want[to]))
                << "from kind " << int(r.from) << " bits " << hex(r.src) << " to kind " << to;
            for (unsigned i = width[to]; i < sizeof out; ++i)
                ASSERT_EQ(out[i], 0xAA) << "wrote past the width of kind " << to;
        }
    }
}

TEST(Convert, SameFloatKindCopiesNanPayload)
{
    // A signalling NaN with a payload must come through bit for bit, which a
    // round trip through double would not do.
    std::uint32_t s32 = 0x7FA00001, d32 = 0;
    std::uint64_t s64 = 0xFFF0000000000123, d64 = 0;
    sd_predefined_convert(&s32, SD_KIND_FLOAT32, &d32, SD_KIND_FLOAT32);
    sd_predefined_convert(&s64, SD_KIND_FLOAT64, &d64, SD_KIND_FLOAT64);
    EXPECT_EQ(d32, 0x7FA00001u);
    EXPECT_EQ(d64, 0xFFF0000000000123u);
}

TEST(Convert, KindOutsideTableWritesNothingAndConverterForwards)
{
    std::int32_t src = 7;
    unsigned char out[8];
    std::memset(out, 0xAA, sizeof out);
    for (int bad : {14, 99, -1}) {
        sd_predefined_convert(&src, SD_KIND_INT32, out, static_cast<k>(bad));
        sd_predefined_convert(&src, static_cast<k>(bad), out, SD_KIND_INT32);
        sd_predefined_cast<unsigned char>(&src, out, static_cast<k>(bad));
    }
    for (unsigned char b : out)
        EXPECT_EQ(b, 0xAA);

    sd_predefined_converter c(SD_INT8.get(), SD_FLOAT64.get());
    std::int8_t s = -100;
    double d = 0;
    c.convert(&s, &d);
    EXPECT_EQ(d, -100.0);
}
