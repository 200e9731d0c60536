// Conversion of raw images between types: sd_predefined_convert for one
// scalar of any kind into any other, and the converter trees that build
// derives once per iterator so that convert can run per sample.
#include "sd_converter.h"

#include <cstdint>
#include <cstring>
#include <limits>

namespace orva_sd {

namespace {

// A type of class K seen as its class, or null; klass() is the cheap test,
// and it is what convert relies on per sample.
template <class T, int K>
T const* as(sd_type const* t)
{
    return t && t->klass() == K ? static_cast<T const*>(t) : nullptr;
}

sd_predefined_type const* as_predefined(sd_type const* t)
{
    return as<sd_predefined_type, SD_CLASS_PREDEFINED>(t);
}
sd_array_type const* as_array(sd_type const* t)
{
    return as<sd_array_type, SD_CLASS_ARRAY>(t);
}
sd_struct_type const* as_struct(sd_type const* t)
{
    return as<sd_struct_type, SD_CLASS_STRUCT>(t);
}
sd_enum_type const* as_enum(sd_type const* t)
{
    return as<sd_enum_type, SD_CLASS_ENUM>(t);
}
sd_variant_type const* as_variant(sd_type const* t)
{
    return as<sd_variant_type, SD_CLASS_VARIANT>(t);
}

bool is_copy(sd_converter_ptr const& c)
{
    return dynamic_cast<sd_copy_converter const*>(c.get()) != nullptr;
}

template <class T>
T load(void const* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
void store(void* p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

// 2^63 and 2^31 as doubles; every float source is widened to double first,
// which is exact, so one set of range tests serves both float kinds.
constexpr double two63 = 9223372036854775808.0;
constexpr double two31 = 2147483648.0;

// Truncation toward zero with the results the processor's own conversion
// gives for a NaN or an out-of-range value (the "integer indefinite"
// pattern). Written out so that no C++ cast ever sees such an input.
std::int32_t truncate32(double d)
{
    if (d > -two31 - 1.0 && d < two31)
        return static_cast<std::int32_t>(d);
    return std::numeric_limits<std::int32_t>::min();
}

std::int64_t truncate64(double d)
{
    if (d >= -two63 && d < two63)
        return static_cast<std::int64_t>(d);
    return std::numeric_limits<std::int64_t>::min();
}

// Round to nearest, ties to even, with overflow to an infinity. The cast is
// used only where the result is a finite float; between FLT_MAX and the
// midpoint to the next power of two the value still rounds down to FLT_MAX.
float narrow_to_float(double d)
{
    constexpr double flt_max = static_cast<double>(std::numeric_limits<float>::max());
    constexpr double midpoint = 0x1.ffffffp127; // FLT_MAX plus half an ulp
    if (d != d)
        return static_cast<float>(d); // keeps sign and payload, as the processor does
    if (d >= -flt_max && d <= flt_max)
        return static_cast<float>(d);
    float const inf = std::numeric_limits<float>::infinity();
    if (d > 0)
        return d >= midpoint ? inf : std::numeric_limits<float>::max();
    return d <= -midpoint ? -inf : -std::numeric_limits<float>::max();
}

// Unsigned 64 bits to a float kind: a set top bit is shifted out with a
// sticky low bit, so that the one rounding of the signed conversion still
// sees whether anything was below the halfway point.
template <class F>
F u64_to_float(std::uint64_t v)
{
    if (!(v >> 63))
        return static_cast<F>(static_cast<std::int64_t>(v));
    std::uint64_t half = (v >> 1) | (v & 1);
    F f = static_cast<F>(static_cast<std::int64_t>(half));
    return f + f;
}

// Writes an integer source, widened to 64 bits (zero- or sign-extended by
// the caller), in the target kind. Integer targets keep the low bits.
// U64 marks an unsigned 64-bit source, the only one whose 64-bit pattern
// must not be read as signed on the way to a float.
template <bool U64>
void write_integer(std::uint64_t v, void* to, sd_predefined_type_kind to_kind)
{
    switch (to_kind) {
    case SD_KIND_CHAR8:
    case SD_KIND_INT8:
    case SD_KIND_UINT8:
        store(to, static_cast<std::uint8_t>(v));
        return;
    case SD_KIND_CHAR16:
    case SD_KIND_INT16:
    case SD_KIND_UINT16:
        store(to, static_cast<std::uint16_t>(v));
        return;
    case SD_KIND_CHAR32:
    case SD_KIND_INT32:
    case SD_KIND_UINT32:
        store(to, static_cast<std::uint32_t>(v));
        return;
    case SD_KIND_INT64:
    case SD_KIND_UINT64:
        store(to, v);
        return;
    case SD_KIND_BOOL:
        store(to, static_cast<std::uint8_t>(v != 0));
        return;
    case SD_KIND_FLOAT32:
        store(to, U64 ? u64_to_float<float>(v)
                      : static_cast<float>(static_cast<std::int64_t>(v)));
        return;
    case SD_KIND_FLOAT64:
        store(to, U64 ? u64_to_float<double>(v)
                      : static_cast<double>(static_cast<std::int64_t>(v)));
        return;
    default:
        return;
    }
}

// A float source, widened to double. A target of the source's own kind gets
// the source bits unchanged, so that a NaN keeps its payload.
void write_float(double d, void const* from, sd_predefined_type_kind from_kind, void* to,
                 sd_predefined_type_kind to_kind)
{
    switch (to_kind) {
    case SD_KIND_CHAR8:
    case SD_KIND_INT8:
    case SD_KIND_UINT8:
        store(to, static_cast<std::uint8_t>(static_cast<std::uint32_t>(truncate32(d))));
        return;
    case SD_KIND_CHAR16:
    case SD_KIND_INT16:
    case SD_KIND_UINT16:
        store(to, static_cast<std::uint16_t>(static_cast<std::uint32_t>(truncate32(d))));
        return;
    case SD_KIND_CHAR32:
    case SD_KIND_UINT32: {
        // Through 64 bits so that the whole unsigned 32-bit range comes out;
        // the invalid pattern 0x8000000000000000 leaves 0 in the low half.
        std::int64_t t = truncate64(d);
        store(to, static_cast<std::uint32_t>(static_cast<std::uint64_t>(t)));
        return;
    }
    case SD_KIND_INT32:
        store(to, truncate32(d));
        return;
    case SD_KIND_INT64:
        store(to, truncate64(d));
        return;
    case SD_KIND_UINT64: {
        std::uint64_t r;
        if (d >= two63)
            r = static_cast<std::uint64_t>(truncate64(d - two63)) ^ (std::uint64_t(1) << 63);
        else
            r = static_cast<std::uint64_t>(truncate64(d));
        store(to, r);
        return;
    }
    case SD_KIND_BOOL:
        store(to, static_cast<std::uint8_t>(d != 0.0));
        return;
    case SD_KIND_FLOAT32:
        if (from_kind == SD_KIND_FLOAT32)
            std::memcpy(to, from, 4);
        else
            store(to, narrow_to_float(d));
        return;
    case SD_KIND_FLOAT64:
        if (from_kind == SD_KIND_FLOAT64)
            std::memcpy(to, from, 8);
        else
            store(to, d);
        return;
    default:
        return;
    }
}

} // namespace

template <>
void sd_predefined_cast<unsigned char>(void const* from, void* to, sd_predefined_type_kind to_kind)
{
    write_integer<false>(load<std::uint8_t>(from), to, to_kind);
}

void sd_predefined_convert(void const* from, sd_predefined_type_kind from_kind, void* to,
                           sd_predefined_type_kind to_kind)
{
    switch (from_kind) {
    case SD_KIND_CHAR8:
    case SD_KIND_BOOL:
    case SD_KIND_UINT8:
        sd_predefined_cast<unsigned char>(from, to, to_kind);
        return;
    case SD_KIND_CHAR16:
    case SD_KIND_UINT16:
        write_integer<false>(load<std::uint16_t>(from), to, to_kind);
        return;
    case SD_KIND_CHAR32:
    case SD_KIND_UINT32:
        write_integer<false>(load<std::uint32_t>(from), to, to_kind);
        return;
    case SD_KIND_INT8:
        write_integer<false>(static_cast<std::uint64_t>(std::int64_t(load<std::int8_t>(from))), to,
                             to_kind);
        return;
    case SD_KIND_INT16:
        write_integer<false>(static_cast<std::uint64_t>(std::int64_t(load<std::int16_t>(from))),
                             to, to_kind);
        return;
    case SD_KIND_INT32:
        write_integer<false>(static_cast<std::uint64_t>(std::int64_t(load<std::int32_t>(from))),
                             to, to_kind);
        return;
    case SD_KIND_INT64:
        write_integer<false>(load<std::uint64_t>(from), to, to_kind);
        return;
    case SD_KIND_UINT64:
        write_integer<true>(load<std::uint64_t>(from), to, to_kind);
        return;
    case SD_KIND_FLOAT32:
        write_float(static_cast<double>(load<float>(from)), from, from_kind, to, to_kind);
        return;
    case SD_KIND_FLOAT64:
        write_float(load<double>(from), from, from_kind, to, to_kind);
        return;
    default:
        return;
    }
}

// ---------------------------------------------------------------------------
// Converter classes

sd_converter::~sd_converter() = default;

sd_copy_converter::sd_copy_converter(sd_type const* from, sd_type const* to)
    : sd_converter(from, to), size_(from ? from->mem_size() : 0)
{
}

void sd_copy_converter::convert(void const* from, void* to) const
{
    if (size_)
        std::memcpy(to, from, size_);
}

sd_predefined_converter::sd_predefined_converter(sd_predefined_type const* from,
                                                 sd_predefined_type const* to)
    : sd_converter(from, to), from_kind(from->kind), to_kind(to->kind)
{
}

void sd_predefined_converter::convert(void const* from, void* to) const
{
    sd_predefined_convert(from, from_kind, to, to_kind);
}

sd_array_converter::sd_array_converter(sd_array_type const* from, sd_array_type const* to,
                                       sd_converter_ptr element_converter)
    : sd_converter(from, to), element_converter(std::move(element_converter))
{
}

void sd_array_converter::convert(void const* from, void* to) const
{
    sd_array_type const* f = as_array(from_type);
    sd_array_type const* t = as_array(to_type);
    if (!f || !t)
        return;
    unsigned long from_stride = f->base_type->mem_size();
    unsigned long to_stride = t->base_type->mem_size();
    auto src = static_cast<unsigned char const*>(from);
    auto dst = static_cast<unsigned char*>(to);
    if (f->dims.empty()) {
        element_converter->convert(src, dst);
        return;
    }
    // The image is flat: the shape of the dimensions only sets the count.
    unsigned long n = 1;
    for (unsigned long d : f->dims)
        n *= d;
    for (unsigned long i = 0; i < n; ++i)
        element_converter->convert(src + i * from_stride, dst + i * to_stride);
}

sd_struct_converter::sd_struct_converter(sd_struct_type const* from, sd_struct_type const* to)
    : sd_converter(from, to)
{
}

void sd_struct_converter::convert(void const* from, void* to) const
{
    auto src = static_cast<unsigned char const*>(from);
    auto dst = static_cast<unsigned char*>(to);
    for (sd_struct_field_converter const& f : fields)
        f.converter->convert(src + f.from_offset, dst + f.to_offset);
}

sd_enum_converter::sd_enum_converter(sd_enum_type const* from, sd_enum_type const* to)
    : sd_converter(from, to)
{
}

sd_enum_converter::sd_enum_converter(sd_enum_type const* from, sd_predefined_type const* to)
    : sd_converter(from, to)
{
}

void sd_enum_converter::convert(void const* from, void* to) const
{
    sd_enum_type const* f = as_enum(from_type);
    if (!f || !to_type)
        return;
    if (sd_enum_type const* t = as_enum(to_type)) {
        // By name: the two enums may give one name different integers.
        long v = 0;
        sd_predefined_convert(from, f->base_type->kind, &v, SD_KIND_INT64);
        auto source = f->find_value(v);
        if (!source)
            return;
        auto target = t->find_value(source->name, false);
        if (!target)
            return;
        target->value(to);
        return;
    }
    sd_predefined_type const* t = as_predefined(to_type);
    if (t && t->is_numeric())
        sd_predefined_convert(from, f->base_type->kind, to, t->kind);
}

sd_variant_converter::sd_variant_converter(sd_variant_type const* from, sd_variant_type const* to)
    : sd_converter(from, to)
{
}

void sd_variant_converter::convert(void const* from, void* to) const
{
    sd_variant_type const* f = as_variant(from_type);
    sd_variant_type const* t = as_variant(to_type);
    if (!f || !t)
        return;
    auto src = static_cast<unsigned char const*>(from);
    auto dst = static_cast<unsigned char*>(to);

    sd_variant_type_constructor const* source = nullptr;
    for (auto const& c : f->constructors) {
        if (load<std::int32_t>(src + c->tag_offset) == c->tag_value) {
            source = c.get();
            break;
        }
    }
    if (!source)
        return;
    auto target = t->find_constructor(source->name);
    if (!target)
        return;
    store(dst + target->tag_offset, static_cast<std::int32_t>(target->tag_value));
    if (!source->value_type)
        return;
    auto it = value_converters.find(source->tag_value);
    if (it != value_converters.end()) {
        it->second->convert(src + source->value_offset, dst + target->value_offset);
        return;
    }
    unsigned long n = source->value_type->mem_size();
    if (n)
        std::memcpy(dst + target->value_offset, src + source->value_offset, n);
}

// ---------------------------------------------------------------------------
// build

namespace {

sd_converter_ptr build_scalar(sd_predefined_type const* from, sd_type const* to_type)
{
    sd_predefined_type const* to = as_predefined(to_type);
    if (!to)
        return nullptr;
    if (from->kind == to->kind)
        return std::make_shared<sd_copy_converter>(from, to);
    // Nothing but a bool becomes a bool, nothing but the same char kind
    // becomes a char, and a char never becomes a float.
    bool ok = (from->is_char() && to->is_integer()) ||
              ((from->is_bool() || from->is_integer() || from->is_float()) &&
               (to->is_integer() || to->is_float()));
    if (!ok)
        return nullptr;
    return std::make_shared<sd_predefined_converter>(from, to);
}

sd_converter_ptr build_array(sd_array_type const* from, sd_type const* to_type)
{
    sd_array_type const* to = as_array(to_type);
    if (!to || from->dims != to->dims)
        return nullptr;
    sd_converter_ptr element = sd_converter::build(from->base_type.get(), to->base_type.get());
    if (!element)
        return nullptr;
    if (is_copy(element))
        return std::make_shared<sd_copy_converter>(from, to);
    return std::make_shared<sd_array_converter>(from, to, std::move(element));
}

sd_converter_ptr build_struct(sd_struct_type const* from, sd_type const* to_type)
{
    sd_struct_type const* to = as_struct(to_type);
    if (!to)
        return nullptr;
    bool needs_work = from->mem_size() != to->mem_size();
    auto result = std::make_shared<sd_struct_converter>(from, to);
    // Matched by name: fields of `from` that `to` lacks are left out.
    for (auto const& to_field : to->fields) {
        auto from_field = from->find_field(to_field->name);
        if (!from_field)
            return nullptr;
        sd_converter_ptr c = sd_converter::build(from_field->type.get(), to_field->type.get());
        if (!c)
            return nullptr;
        if (!is_copy(c) || from_field->offset != to_field->offset)
            needs_work = true;
        result->fields.emplace_back(from_field->offset, to_field->offset, std::move(c));
    }
    if (needs_work)
        return result;
    // Same size and offsets: one copy of the whole image, which also carries
    // the bytes of fields that `to` leaves out.
    return std::make_shared<sd_copy_converter>(from, to);
}

sd_converter_ptr build_enum(sd_enum_type const* from, sd_type const* to_type)
{
    if (sd_enum_type const* to = as_enum(to_type)) {
        for (auto const& v : from->values)
            if (!to->find_value(v->name, false))
                return nullptr;
        // Never a copy: equal names may stand for other integers or another
        // base kind.
        return std::make_shared<sd_enum_converter>(from, to);
    }
    sd_predefined_type const* to = as_predefined(to_type);
    if (!to || !to->is_numeric())
        return nullptr;
    return std::make_shared<sd_enum_converter>(from, to);
}

sd_converter_ptr build_variant(sd_variant_type const* from, sd_type const* to_type)
{
    sd_variant_type const* to = as_variant(to_type);
    if (!to || from->constructors.size() != to->constructors.size())
        return nullptr;
    bool needs_work = from->mem_size() != to->mem_size();
    auto result = std::make_shared<sd_variant_converter>(from, to);
    // Paired by position; the names then have to agree.
    auto fi = from->constructors.begin();
    auto ti = to->constructors.begin();
    for (; fi != from->constructors.end() && ti != to->constructors.end(); ++fi, ++ti) {
        sd_variant_type_constructor const& f = **fi;
        sd_variant_type_constructor const& t = **ti;
        // A payload-free source constructor doesn't look at the destination's
        // payload: it can only ever write the tag.
        if (f.value_type) {
            if (!t.value_type)
                return nullptr;
            sd_converter_ptr c = sd_converter::build(f.value_type.get(), t.value_type.get());
            if (!c)
                return nullptr;
            if (!is_copy(c)) {
                // First constructor of a tag wins, as convert finds the first.
                result->value_converters.emplace(f.tag_value, std::move(c));
                needs_work = true;
            }
        }
        if (f.name != t.name || f.tag_value != t.tag_value)
            return nullptr;
        if (!needs_work && (f.tag_offset != t.tag_offset || f.value_offset != t.value_offset))
            needs_work = true;
    }
    if (needs_work)
        return result;
    return std::make_shared<sd_copy_converter>(from, to);
}

} // namespace

sd_converter_ptr sd_converter::build(sd_type const* from, sd_type const* to)
{
    if (!from || !to)
        return nullptr;
    if (from == to)
        return std::make_shared<sd_copy_converter>(from, from);
    switch (from->klass()) {
    case SD_CLASS_PREDEFINED:
        return build_scalar(static_cast<sd_predefined_type const*>(from), to);
    case SD_CLASS_ARRAY:
        return build_array(static_cast<sd_array_type const*>(from), to);
    case SD_CLASS_STRUCT:
        return build_struct(static_cast<sd_struct_type const*>(from), to);
    case SD_CLASS_ENUM:
        return build_enum(static_cast<sd_enum_type const*>(from), to);
    case SD_CLASS_VARIANT:
        return build_variant(static_cast<sd_variant_type const*>(from), to);
    case SD_CLASS_IMPORTED:
        // Opaque bytes: whatever `to` is, the image is copied at the size of
        // `from`.
        return std::make_shared<sd_copy_converter>(from, to);
    default:
        return nullptr;
    }
}

} // namespace orva_sd
