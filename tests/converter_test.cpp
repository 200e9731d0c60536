// Converter trees: which pairs of types build, where build folds to a plain
// copy, and what convert writes (and leaves alone) for each class of type.
#include "sd_converter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);
using bytes = std::vector<unsigned char>;

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

sd_converter_ptr build(sd_type_ptr const& a, sd_type_ptr const& b) { return sd_converter::build(a.get(), b.get()); }
sd_type_ptr array_of(sd_type_ptr base, std::vector<unsigned long> dims)
{
    return std::make_shared<sd_array_type>(-1, std::move(base), std::move(dims));
}

struct field { char const* name; sd_type_ptr type; unsigned long offset; };
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

struct ctor { char const* name; sd_type_ptr type; int tag; unsigned long tag_offset = AUTO, value_offset = AUTO; };
sd_type_ptr variant_of(unsigned long size, std::vector<ctor> cs)
{
    auto v = std::make_shared<sd_variant_type>(-1, size);
    for (auto& c : cs)
        v->add_constructor(c.name, c.type, c.tag_offset, c.tag, c.value_offset);
    return v;
}

template <class T> void put(unsigned char* p, T v) { std::memcpy(p, &v, sizeof v); }

// What convert leaves in a destination of 24 bytes of 0xEE, and what a row
// expects there: 0xEE with its own values filled in.
bytes run(sd_converter_ptr const& c, void const* src) { bytes d(24, 0xEE); c->convert(src, d.data()); return d; }
bytes image(void (*fill)(unsigned char*)) { bytes d(24, 0xEE); fill(d.data()); return d; }

} // namespace

TEST(Converter, SameObjectIsCopyForEveryClass)
{
    sd_type_ptr types[] = {SD_FLOAT64, array_of(SD_INT32, {3}), struct_of(AUTO, {}), enum_of(SD_INT32, {{"a", 1}}),
                           variant_of(AUTO, {{"none", nullptr, -1}}), std::make_shared<sd_imported_type>(-1, 8)};
    for (auto const& t : types)
        EXPECT_EQ(kind_of(build(t, t)), 'c') << t->to_string();
    EXPECT_EQ(sd_converter::build(nullptr, SD_INT32.get()), nullptr);
    EXPECT_EQ(sd_converter::build(SD_INT32.get(), nullptr), nullptr);
}

TEST(Converter, ScalarPairs)
{
    // Families of kinds 0..13, and the outcome between two different kinds by
    // family: the source picks the row, the target family the letter in it,
    // in the order char, bool, integer, float. The same kind is a copy.
    int const family[] = {0, 0, 0, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3};
    char const* const rule[] = {"..p.", "..pp", "..pp", "..pp"};
    auto const& all = sd_predefined_types::all_;
    for (int f = 0; f < 14; ++f)
        for (int t = 0; t < 14; ++t)
            EXPECT_EQ(kind_of(build(all[f], all[t])), f == t ? 'c' : rule[family[f]][family[t]]) << f << " to " << t;
    EXPECT_EQ(build(SD_INT32, struct_of(AUTO, {{"x", SD_INT32, 0}})), nullptr);
}

TEST(Converter, Arrays)
{
    auto i32x3 = array_of(SD_INT32, {3});
    EXPECT_EQ(kind_of(build(i32x3, array_of(SD_INT32, {3}))), 'c'); // another object
    // No reshaping, and the elements must convert.
    for (auto const& to : {array_of(SD_INT32, {1, 3}), array_of(SD_INT64, {4}), array_of(SD_BOOL, {3})})
        EXPECT_EQ(build(i32x3, to), nullptr) << to->to_string();

    // A converter borrows its types, which the rows keep alive.
    struct row { sd_type_ptr from, to; std::vector<std::int32_t> want; } const rows[] = {
        {array_of(SD_INT16, {2, 3}), array_of(SD_INT32, {2, 3}), {1, -2, 3, -4, 5, -6, 77}}, // one flat run
        {array_of(SD_INT16, {0}), array_of(SD_INT32, {0}), {77, 77, 77, 77, 77, 77, 77}},    // nothing
        {array_of(SD_INT16, {}), array_of(SD_INT32, {}), {1, 77, 77, 77, 77, 77, 77}},        // one element
    };
    std::int16_t const src[6] = {1, -2, 3, -4, 5, -6};
    for (auto const& r : rows) {
        auto c = build(r.from, r.to);
        ASSERT_EQ(kind_of(c), 'a') << r.from->to_string();
        std::vector<std::int32_t> out(7, 77);
        c->convert(src, out.data());
        EXPECT_EQ(out, r.want) << r.from->to_string();
    }
}

TEST(Converter, StructsMatchByName)
{
    auto xy = struct_of(16, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}});
    auto x_only = struct_of(16, {{"x", SD_INT32, 0}});
    EXPECT_EQ(kind_of(build(xy, struct_of(16, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}}))), 'c');
    EXPECT_EQ(build(x_only, xy), nullptr); // a destination field the source lacks
    EXPECT_EQ(build(xy, struct_of(16, {{"x", SD_BOOL, 0}})), nullptr);
    EXPECT_EQ(build(xy, array_of(SD_INT32, {4})), nullptr);

    unsigned char src[16] = {};
    put<std::int32_t>(src, -42);
    put<double>(src + 8, 2.5);
    struct row { sd_type_ptr to; char kind; void (*expect)(unsigned char*); } const rows[] = {
        {struct_of(16, {{"y", SD_FLOAT64, 0}, {"x", SD_INT32, 8}}), 's',
         [](unsigned char* e) { put(e, 2.5), put<std::int32_t>(e + 8, -42); }},
        // Only a larger size: padding and tail of the destination stay as they were.
        {struct_of(24, {{"x", SD_INT32, 0}, {"y", SD_FLOAT64, 8}}), 's',
         [](unsigned char* e) { put<std::int32_t>(e, -42), put(e + 8, 2.5); }},
        // A field less at the same offsets and size is a copy, which carries
        // the left-out field's bytes (and the padding) along.
        {x_only, 'c', [](unsigned char* e) { put<std::int64_t>(e, -42 & 0xFFFFFFFF), put(e + 8, 2.5); }},
        // A converted field at an unchanged offset still needs work.
        {struct_of(16, {{"x", SD_INT64, 0}}), 's', [](unsigned char* e) { put<std::int64_t>(e, -42); }},
    };
    for (auto const& r : rows) {
        auto c = build(xy, r.to);
        ASSERT_EQ(kind_of(c), r.kind) << r.to->to_string();
        EXPECT_EQ(run(c, src), image(r.expect)) << r.to->to_string();
    }
}

TEST(Converter, EnumsByName)
{
    auto e = enum_of(SD_INT32, {{"red", 1}, {"green", 2}});
    auto narrow = enum_of(SD_UINT8, {{"green", 20}, {"blue", 30}, {"red", 10}});
    auto qualified = enum_of(SD_INT16, {{"Colour::red", 5}, {"Colour::green", 6}});
    EXPECT_EQ(build(narrow, e), nullptr); // no "blue"
    for (auto const& bad : {sd_type_ptr(SD_BOOL), sd_type_ptr(SD_CHAR8), struct_of(AUTO, {})})
        EXPECT_EQ(build(e, bad), nullptr) << bad->to_string();
    EXPECT_EQ(kind_of(build(e, SD_FLOAT32)), 'e');

    // want: the destination's integer, in its width; -1: left untouched
    struct row { sd_type_ptr from, to; long in, want; } const rows[] = {
        {e, enum_of(SD_INT32, {{"red", 1}, {"green", 2}}), 2, 2}, // alike, yet never a copy
        {e, narrow, 7, -1},      // no enumerator: destination kept
        {e, narrow, 1, 10},      // other integers, other base kind
        {qualified, e, 6, 2},    // names match after the last colon
        {qualified, enum_of(SD_INT32, {{"Paint::red", 50}, {"Paint::green", 60}}), 5, 50},
        {e, SD_INT16, 7, 7},     // to a scalar: no lookup at all
    };
    for (auto const& r : rows) {
        auto c = build(r.from, r.to);
        ASSERT_EQ(kind_of(c), 'e');
        bytes expect(24, 0xEE);
        if (r.want >= 0)
            std::memcpy(expect.data(), &r.want, r.to->mem_size());
        EXPECT_EQ(run(c, &r.in), expect) << "in " << r.in; // the low bytes of in are its value
    }
}

TEST(Converter, VariantsByPosition)
{
    // none: tag 0, no payload; some: tag 1, int32 behind the tag.
    auto v = variant_of(AUTO, {{"none", nullptr, 0}, {"some", SD_INT32, 1}});
    // A wider payload further back, the tags at the end.
    auto wide = variant_of(24, {{"none", nullptr, 0, 16, 0}, {"some", SD_INT64, 1, 16, 8}});
    // The same payload type at another offset.
    auto moved = variant_of(8, {{"none", nullptr, 0, 4, 0}, {"some", SD_INT32, 1, 4, 0}});
    // A source constructor without payload accepts a destination one with a
    // payload and writes only the tag; the other way round is refused.
    auto bare = variant_of(AUTO, {{"a", nullptr, 0}});
    auto loaded = variant_of(AUTO, {{"a", SD_INT32, 0}});
    EXPECT_EQ(build(loaded, bare), nullptr);
    EXPECT_EQ(kind_of(build(v, variant_of(AUTO, {{"none", nullptr, 0}, {"some", SD_INT32, 1}}))), 'c');
    auto c = build(v, wide), cm = build(v, moved), cb = build(bare, loaded);
    ASSERT_EQ(std::string({kind_of(c), kind_of(cm), kind_of(cb)}), "vvv");
    // Only payloads that need more than a copy get a converter of their own.
    EXPECT_EQ(static_cast<sd_variant_converter const*>(c.get())->value_converters.count(1), 1u);
    EXPECT_TRUE(static_cast<sd_variant_converter const*>(cm.get())->value_converters.empty());
    struct row { sd_converter_ptr conv; std::int32_t tag, payload; void (*expect)(unsigned char*); } const rows[] = {
        {c, 1, -9, [](unsigned char* e) { put<std::int32_t>(e + 16, 1), put<std::int64_t>(e + 8, -9); }},
        {c, 0, -9, [](unsigned char* e) { put<std::int32_t>(e + 16, 0); }}, // payload-free: only the tag
        {c, 5, -9, [](unsigned char*) {}}, // no constructor has the tag: nothing written
        {cm, 1, 321, [](unsigned char* e) { put<std::int32_t>(e + 4, 1), put<std::int32_t>(e, 321); }},
        {cb, 0, 321, [](unsigned char* e) { put<std::int32_t>(e, 0); }},
    };
    for (auto const& r : rows) {
        unsigned char src[8];
        put(src, r.tag);
        put(src + 4, r.payload);
        EXPECT_EQ(run(r.conv, src), image(r.expect)) << "tag " << r.tag;
    }
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
        EXPECT_EQ(build(base, to), nullptr) << to->to_string();
}

TEST(Converter, ImportedIsAlwaysACopyOfItsOwnSize)
{
    auto imp = std::make_shared<sd_imported_type>(-1, 4);
    unsigned char const src[4] = {1, 2, 3, 4};
    sd_type_ptr const targets[] = {SD_INT8, struct_of(AUTO, {}), std::make_shared<sd_imported_type>(-1, 2)};
    for (sd_type_ptr const& t : targets) {
        auto c = build(imp, t);
        ASSERT_EQ(kind_of(c), 'c');
        EXPECT_EQ(run(c, src), image([](unsigned char* e) { put<std::uint32_t>(e, 0x04030201); }));
    }
    EXPECT_EQ(build(SD_INT32, imp), nullptr);
}
