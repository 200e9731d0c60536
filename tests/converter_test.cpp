// Converter trees: which pairs of types build, where build folds to a plain
// copy, and what convert writes (and leaves alone) for each class of type.
#include "sd_converter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);

// One letter per outcome of build: '.' null, 'c' copy, 'p' scalar, 'a' array,
// 's' struct, 'e' enum, 'v' variant.
char kind_of(sd_converter_ptr const& c)
{
    sd_converter const* p = c.get();
    return !p ? '.'
           : dynamic_cast<sd_copy_converter const*>(p)      ? 'c'
           : dynamic_cast<sd_predefined_converter const*>(p) ? 'p'
           : dynamic_cast<sd_array_converter const*>(p)      ? 'a'
           : dynamic_cast<sd_struct_converter const*>(p)     ? 's'
           : dynamic_cast<sd_enum_converter const*>(p)       ? 'e'
           : dynamic_cast<sd_variant_converter const*>(p)    ? 'v'
                                                             : '?';
}

char build_kind(sd_type_ptr const& from, sd_type_ptr const& to)
{
    return kind_of(sd_converter::build(from.get(), to.get()));
}

sd_type_ptr array_of(sd_type_ptr base, std::vector<unsigned long> dims)
{
    return std::make_shared<sd_array_type>(-1, std::move(base), std::move(dims));
}

struct field {
    char const* name;
    sd_type_ptr type;
    unsigned long offset;
};
sd_type_ptr struct_of(unsigned long size, std::vector<field> fs)
{
    auto s = std::make_shared<sd_struct_type>(-1, size);
    for (auto& f : fs)
        s->add_field(f.name, f.type, f.offset);
    return s;
}

sd_type_ptr enum_of(sd_predefined_type_ptr base, std::vector<std::pair<char const*, long>> vs)
{
    auto e = std::make_shared<sd_enum_type>(-1, std::move(base));
    for (auto& v : vs)
        e->add_value(v.first, v.second);
    return e;
}

struct ctor {
    char const* name;
    sd_type_ptr type;
    int tag;
    unsigned long tag_offset = AUTO, value_offset = AUTO;
};
sd_type_ptr variant_of(unsigned long size, std::vector<ctor> cs)
{
    auto v = std::make_shared<sd_variant_type>(-1, size);
    for (auto& c : cs)
        v->add_constructor(c.name, c.type, c.tag_offset, c.tag, c.value_offset);
    return v;
}

template <class T>
void put(unsigned char* p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

template <class T>
T get(unsigned char const* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

} // namespace

TEST(Converter, SameObjectIsCopyForEveryClass)
{
    sd_type_ptr types[] = {SD_FLOAT64,
                           array_of(SD_INT32, {3}),
                           struct_of(AUTO, {}),
                           enum_of(SD_INT32, {{"a", 1}}),
                           variant_of(AUTO, {{"none", nullptr, -1}}),
                           std::make_shared<sd_imported_type>(-1, 8)};
    for (auto const& t : types)
        EXPECT_EQ(build_kind(t, t), 'c') << t->to_string();
    EXPECT_EQ(sd_converter::build(nullptr, SD_INT32.get()), nullptr);
    EXPECT_EQ(sd_converter::build(SD_INT32.get(), nullptr), nullptr);
}

TEST(Converter, ScalarPairs)
{
    // Rows are the source kind, columns the target kind, both 0..13.
    char const* grid[14] = {
        "c...pppppppp..", // char8
        ".c..pppppppp..", // char16
        "..c.pppppppp..", // char32
        "...cpppppppppp", // bool
        "....cppppppppp", // int8
        "....pcpppppppp", // int16
        "....ppcppppppp", // int32
        "....pppcpppppp", // int64
        "....ppppcppppp", // uint8
        "....pppppcpppp", // uint16
        "....ppppppcppp", // uint32
        "....pppppppcpp", // uint64
        "....ppppppppcp", // float32
        "....pppppppppc", // float64
    };
    auto const& all = sd_predefined_types::all_;
    for (int f = 0; f < 14; ++f)
        for (int t = 0; t < 14; ++t)
            EXPECT_EQ(build_kind(all[f], all[t]), grid[f][t]) << "from " << f << " to " << t;
    EXPECT_EQ(build_kind(SD_INT32, struct_of(AUTO, {{"x", SD_INT32, 0}})), '.');
    EXPECT_EQ(build_kind(SD_INT32, array_of(SD_INT32, {1})), '.');
}

TEST(Converter, Arrays)
{
    auto i32x3 = array_of(SD_INT32, {3}), i64x3 = array_of(SD_INT64, {3});
    EXPECT_EQ(build_kind(i32x3, array_of(SD_INT32, {3})), 'c'); // another object
    auto c = sd_converter::build(i32x3.get(), i64x3.get());
    ASSERT_EQ(kind_of(c), 'a');
    std::int32_t src[3] = {-1, 2, -300000};
    std::int64_t dst[3] = {};
    c->convert(src, dst);
    EXPECT_EQ(dst[0], -1);
    EXPECT_EQ(dst[2], -300000);

    // Two dimensions are walked as one flat run of 6.
    auto i16x2x3 = array_of(SD_INT16, {2, 3}), i32x2x3 = array_of(SD_INT32, {2, 3});
    auto c2 = sd_converter::build(i16x2x3.get(), i32x2x3.get());
    ASSERT_EQ(kind_of(c2), 'a');
    std::int16_t s6[6] = {1, -2, 3, -4, 5, -6};
    std::int32_t d6[7] = {0, 0, 0, 0, 0, 0, 77};
    c2->convert(s6, d6);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(d6[i], s6[i]);
    EXPECT_EQ(d6[6], 77);

    // No reshaping, and the elements must convert.
    EXPECT_EQ(build_kind(i32x2x3, array_of(SD_INT32, {6})), '.');
    EXPECT_EQ(build_kind(i32x2x3, array_of(SD_INT32, {3, 2})), '.');
    EXPECT_EQ(build_kind(i32x3, array_of(SD_INT64, {4})), '.');
    EXPECT_EQ(build_kind(i32x3, array_of(SD_BOOL, {3})), '.');

    // A dimension of 0 converts nothing; no dimensions at all, one element.
    auto i32x0 = array_of(SD_INT32, {0}), i64x0 = array_of(SD_INT64, {0});
    auto c0 = sd_converter::build(i32x0.get(), i64x0.get());
    ASSERT_EQ(kind_of(c0), 'a');
    std::int64_t untouched[2] = {11, 22};
    c0->convert(src, untouched);
    EXPECT_EQ(untouched[0], 11);
    auto i16 = array_of(SD_INT16, {}), i32 = array_of(SD_INT32, {});
    auto c1 = sd_converter::build(i16.get(), i32.get());
    std::int32_t out[2] = {0, 99};
    c1->convert(s6 + 1, out);
    EXPECT_EQ(out[0], -2);
    EXPECT_EQ(out[1], 99);
}

TEST(Converter, StructsMatchByName)
{
    auto xy = struct_of(16, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}});
    auto yx = struct_of(16, {{"y", SD_FLOAT64, 0}, {"x", SD_INT32, 8}});
    auto xy_big = struct_of(24, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}});
    auto x_only = struct_of(16, {{"x", SD_INT32, 0}});
    auto x64 = struct_of(16, {{"x", SD_INT64, 0}});
    EXPECT_EQ(build_kind(xy, struct_of(16, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}})), 'c');
    EXPECT_EQ(build_kind(x_only, xy), '.'); // a destination field the source lacks
    EXPECT_EQ(build_kind(xy, struct_of(16, {{"x", SD_BOOL, 0}})), '.');
    EXPECT_EQ(build_kind(xy, array_of(SD_INT32, {4})), '.');

    unsigned char src[16] = {}, dst[24];
    put<std::int32_t>(src, -42);
    put<double>(src + 8, 2.5);

    auto c = sd_converter::build(xy.get(), yx.get());
    ASSERT_EQ(kind_of(c), 's');
    EXPECT_EQ(static_cast<sd_struct_converter const*>(c.get())->fields.size(), 2u);
    c->convert(src, dst);
    EXPECT_EQ(get<double>(dst), 2.5);
    EXPECT_EQ(get<std::int32_t>(dst + 8), -42);

    // Only a larger size: padding and tail of the destination stay as they were.
    auto cb = sd_converter::build(xy.get(), xy_big.get());
    ASSERT_EQ(kind_of(cb), 's');
    std::memset(dst, 0xEE, sizeof dst);
    cb->convert(src, dst);
    EXPECT_EQ(get<std::int32_t>(dst), -42);
    EXPECT_EQ(get<double>(dst + 8), 2.5);
    EXPECT_EQ(get<std::uint32_t>(dst + 4), 0xEEEEEEEEu);
    EXPECT_EQ(get<std::uint64_t>(dst + 16), 0xEEEEEEEEEEEEEEEEu);

    // A field less at the same offsets and size is a copy, which carries the
    // left-out field's bytes along.
    auto cx = sd_converter::build(xy.get(), x_only.get());
    ASSERT_EQ(kind_of(cx), 'c');
    cx->convert(src, dst);
    EXPECT_EQ(std::memcmp(src, dst, 16), 0);

    // A converted field at an unchanged offset still needs work.
    auto c64 = sd_converter::build(xy.get(), x64.get());
    ASSERT_EQ(kind_of(c64), 's');
    std::memset(dst, 0xEE, sizeof dst);
    c64->convert(src, dst);
    EXPECT_EQ(get<std::int64_t>(dst), -42);
    EXPECT_EQ(dst[8], 0xEE);
}

TEST(Converter, NestedTreeConvertsEveryLevel)
{
    auto from = struct_of(AUTO, {{"v", array_of(SD_INT16, {2}), AUTO},
                                 {"c", enum_of(SD_INT8, {{"red", 1}, {"green", 2}}), AUTO}});
    auto to = struct_of(AUTO, {{"c", enum_of(SD_INT32, {{"green", 200}, {"red", 100}}), AUTO},
                               {"v", array_of(SD_FLOAT32, {2}), AUTO}});
    auto c = sd_converter::build(from.get(), to.get());
    ASSERT_EQ(kind_of(c), 's');
    unsigned char src[5] = {0xFD, 0xFF, 7, 0, 2}; // {-3, 7}, green
    unsigned char dst[12] = {};
    c->convert(src, dst);
    EXPECT_EQ(get<std::int32_t>(dst), 200);
    EXPECT_EQ(get<float>(dst + 4), -3.0f);
    EXPECT_EQ(get<float>(dst + 8), 7.0f);
}

TEST(Converter, EnumsByName)
{
    auto e = enum_of(SD_INT32, {{"red", 1}, {"green", 2}});
    auto e_again = enum_of(SD_INT32, {{"red", 1}, {"green", 2}});
    auto narrow = enum_of(SD_UINT8, {{"green", 20}, {"blue", 30}, {"red", 10}});
    auto qualified = enum_of(SD_INT16, {{"Colour::red", 5}, {"Colour::green", 6}});
    auto other_ns = enum_of(SD_INT32, {{"Paint::red", 50}, {"Paint::green", 60}});
    EXPECT_EQ(build_kind(narrow, e), '.'); // no "blue"
    for (auto const& bad : {sd_type_ptr(SD_BOOL), sd_type_ptr(SD_CHAR8), struct_of(AUTO, {})})
        EXPECT_EQ(build_kind(e, bad), '.');

    struct row {
        sd_type_ptr from, to;
        long in;
        long want; // read back as the destination's width; -1: left untouched
    } rows[] = {
        {e, e_again, 2, 2},         // alike, yet never a copy
        {e, e_again, 7, -1},        // no enumerator: destination kept
        {e, narrow, 1, 10},         // other integers, other base kind
        {qualified, e, 6, 2},       // names match after the last colon
        {qualified, other_ns, 5, 50},
        {e, SD_INT16, 7, 7},        // to a scalar: no lookup at all
    };
    for (auto const& r : rows) {
        auto c = sd_converter::build(r.from.get(), r.to.get());
        ASSERT_EQ(kind_of(c), 'e');
        unsigned char src[8] = {}, dst[8];
        sd_predefined_convert(&r.in, SD_KIND_INT64, src,
                              std::static_pointer_cast<sd_enum_type>(r.from)->base_type->kind);
        std::memset(dst, 0xEE, sizeof dst);
        c->convert(src, dst);
        unsigned char expect[8];
        std::memset(expect, 0xEE, sizeof expect);
        if (r.want >= 0)
            std::memcpy(expect, &r.want, r.to->mem_size());
        EXPECT_EQ(std::memcmp(dst, expect, sizeof dst), 0) << "in " << r.in;
    }

    auto cf = sd_converter::build(e.get(), SD_FLOAT32.get());
    ASSERT_EQ(kind_of(cf), 'e');
    std::int32_t in = 2;
    float f = 0;
    cf->convert(&in, &f);
    EXPECT_EQ(f, 2.0f);
    // Made by hand, to a non-numeric scalar: writes nothing.
    sd_enum_converter to_bool(static_cast<sd_enum_type const*>(e.get()), SD_BOOL.get());
    unsigned char flag = 0xEE;
    to_bool.convert(&in, &flag);
    EXPECT_EQ(flag, 0xEE);
}

TEST(Converter, VariantsByPosition)
{
    // none: tag 0, no payload; some: tag 1, int32 behind the tag.
    auto v = variant_of(AUTO, {{"none", nullptr, 0}, {"some", SD_INT32, 1}});
    // A wider payload further back, the tags at the end.
    auto wide = variant_of(24, {{"none", nullptr, 0, 16, 0}, {"some", SD_INT64, 1, 16, 8}});
    // The same payload type at another offset.
    auto moved = variant_of(8, {{"none", nullptr, 0, 4, 0}, {"some", SD_INT32, 1, 4, 0}});
    EXPECT_EQ(build_kind(v, variant_of(AUTO, {{"none", nullptr, 0}, {"some", SD_INT32, 1}})), 'c');
    EXPECT_EQ(build_kind(variant_of(12, {{"none", nullptr, 0}, {"some", SD_INT32, 1}}),
                         variant_of(12, {{"none", nullptr, 0}, {"some", SD_INT32, 1, 0, 8}})),
              'v'); // only a value offset differs

    auto c = sd_converter::build(v.get(), wide.get());
    ASSERT_EQ(kind_of(c), 'v');
    EXPECT_EQ(static_cast<sd_variant_converter const*>(c.get())->value_converters.count(1), 1u);
    auto cm = sd_converter::build(v.get(), moved.get());
    ASSERT_EQ(kind_of(cm), 'v');
    EXPECT_TRUE(static_cast<sd_variant_converter const*>(cm.get())->value_converters.empty());

    struct row {
        sd_converter_ptr conv;
        std::int32_t tag, payload;
        std::vector<std::pair<unsigned, std::int64_t>> want; // offset, 32/64-bit value
    } rows[] = {
        {c, 1, -9, {{16, 1}, {8, -9}}},
        {c, 0, -9, {{16, 0}}}, // payload-free: only the tag
        {c, 5, -9, {}},        // no constructor has the tag: nothing written
        {cm, 1, 321, {{4, 1}, {0, 321}}},
    };
    for (auto const& r : rows) {
        unsigned char src[8], dst[24], expect[24];
        put(src, r.tag);
        put(src + 4, r.payload);
        std::memset(dst, 0xEE, sizeof dst);
        std::memset(expect, 0xEE, sizeof expect);
        for (auto const& w : r.want) {
            if (r.conv == c && w.first == 8)
                put<std::int64_t>(expect + w.first, w.second);
            else
                put<std::int32_t>(expect + w.first, std::int32_t(w.second));
        }
        r.conv->convert(src, dst);
        EXPECT_EQ(std::memcmp(dst, expect, sizeof dst), 0) << "tag " << r.tag;
    }

    // Same layout, but an enum payload whose integers differ: never a copy.
    auto ve1 = variant_of(AUTO, {{"k", enum_of(SD_INT32, {{"lo", 1}, {"hi", 2}}), 0}});
    auto ve2 = variant_of(AUTO, {{"k", enum_of(SD_INT32, {{"lo", 10}, {"hi", 20}}), 0}});
    auto ce = sd_converter::build(ve1.get(), ve2.get());
    ASSERT_EQ(kind_of(ce), 'v');
    unsigned char src[8] = {0, 0, 0, 0, 2, 0, 0, 0}, dst[8] = {};
    ce->convert(src, dst);
    EXPECT_EQ(get<std::int32_t>(dst + 4), 20);
}

TEST(Converter, VariantRefusalsAndAsymmetry)
{
    // A source constructor without payload accepts a destination one with a
    // payload and writes only the tag; the other way round is refused.
    auto bare = variant_of(AUTO, {{"a", nullptr, 0}});
    auto loaded = variant_of(AUTO, {{"a", SD_INT32, 0}});
    auto c = sd_converter::build(bare.get(), loaded.get());
    ASSERT_NE(c, nullptr);
    unsigned char src[4] = {}, dst[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    c->convert(src, dst);
    EXPECT_EQ(get<std::int32_t>(dst), 0);
    EXPECT_EQ(get<std::int32_t>(dst + 4), 0x09090909);
    EXPECT_EQ(build_kind(loaded, bare), '.');

    auto base = variant_of(AUTO, {{"a", nullptr, 0}, {"b", SD_INT32, 1}});
    sd_type_ptr refused[] = {
        variant_of(AUTO, {{"b", SD_INT32, 1}, {"a", nullptr, 0}}), // other order
        variant_of(AUTO, {{"a", nullptr, 0}, {"c", SD_INT32, 1}}), // other name
        variant_of(AUTO, {{"a", nullptr, 0}, {"b", SD_INT32, 2}}), // other tag
        variant_of(AUTO, {{"a", nullptr, 0}}),                     // fewer
        variant_of(AUTO, {{"a", nullptr, 0}, {"b", SD_BOOL, 1}}),  // payload won't convert
        SD_INT32,
    };
    for (auto const& to : refused)
        EXPECT_EQ(build_kind(base, to), '.') << to->to_string();
}

TEST(Converter, ImportedIsAlwaysACopyOfItsOwnSize)
{
    auto imp = std::make_shared<sd_imported_type>(-1, 4);
    sd_type_ptr other_imported = std::make_shared<sd_imported_type>(-1, 2);
    for (sd_type_ptr t : {sd_type_ptr(SD_INT8), struct_of(AUTO, {}), other_imported}) {
        auto c = sd_converter::build(imp.get(), t.get());
        ASSERT_EQ(kind_of(c), 'c');
        unsigned char src[4] = {1, 2, 3, 4}, dst[6] = {0, 0, 0, 0, 0xEE, 0xEE};
        c->convert(src, dst);
        EXPECT_EQ(std::memcmp(dst, src, 4), 0);
        EXPECT_EQ(dst[4], 0xEE);
    }
    EXPECT_EQ(build_kind(SD_INT32, imp), '.');
}
