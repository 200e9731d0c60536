// Value objects and their byte encoding: to_bytes turns a value into the raw
// image of a type the caller supplies, from_bytes builds a value tree back from
// an image (and, for a whole stored sample, from the variable parts behind it).
#include "sd_value.h"

#include "orva_sd.h"
#include "sd_converter.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace orva_sd {

namespace {

__attribute__((format(printf, 1, 2))) std::string format_text(char const* fmt, ...)
{
    char small[64];
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int n = std::vsnprintf(small, sizeof small, fmt, ap);
    va_end(ap);
    std::string s;
    if (n > 0 && static_cast<unsigned long>(n) < sizeof small) {
        s.assign(small, static_cast<unsigned long>(n));
    } else if (n > 0) {
        // "%f" of a large double runs to hundreds of digits.
        s.resize(static_cast<unsigned long>(n));
        std::vsnprintf(&s[0], s.size() + 1, fmt, again);
    }
    va_end(again);
    return s;
}

std::string quoted_low_byte(unsigned long v)
{
    // Only the low byte goes out, raw: a char16 0x0141 reads 'A', and a 0
    // leaves a NUL between the quotes.
    std::string s(3, '\'');
    s[1] = static_cast<char>(v & 0xFF);
    return s;
}

// Frees a value tree that nobody will ever see, variants' inner values
// included: a decode that raises half-way must not leak what it built, and
// the inner value of a decoded variant has no other owner.
void destroy_decoded(sd_value* v)
{
    if (!v)
        return;
    if (auto* list = dynamic_cast<sd_list_values*>(v)) {
        for (sd_value*& child : list->values) {
            destroy_decoded(child);
            child = nullptr;
        }
    } else if (auto* variant = dynamic_cast<sd_variant_value*>(v)) {
        destroy_decoded(variant->value);
        variant->value = nullptr;
    }
    delete v;
}

// Guards the children being decoded into a list's vector while its
// constructor runs: the list's destructor does not run for a constructor
// that raises.
class decoded_children_guard {
public:
    explicit decoded_children_guard(std::vector<sd_value*>& values) : values_(values) {}
    ~decoded_children_guard()
    {
        if (armed_)
            for (sd_value*& child : values_) {
                destroy_decoded(child);
                child = nullptr;
            }
    }
    void release() { armed_ = false; }

private:
    std::vector<sd_value*>& values_;
    bool armed_ = true;
};

void push_decoded(std::vector<sd_value*>& values, sd_value* child)
{
    std::unique_ptr<sd_value, void (*)(sd_value*)> hold(child, destroy_decoded);
    values.push_back(child);
    hold.release();
}

// A scalar of the concrete class C read from `bytes`; null bytes give 0. A
// bool keeps the byte as it is.
template <class C>
sd_predefined_value* new_scalar(void const* bytes)
{
    decltype(C::value) v{};
    if (bytes)
        std::memcpy(&v, bytes, sizeof v);
    return new C(v);
}

// Writes n bytes of an imported or enum image: appended, or through
// write_at, which cuts the buffer off right behind them.
void put_bytes(sd_buffer& buffer, void const* p, unsigned long n, unsigned long* offset)
{
    if (offset)
        buffer.write_at(p, n, *offset);
    else
        buffer.append(p, n);
}

} // namespace

// ---- sd_value -------------------------------------------------------------

sd_value::~sd_value() = default;

void sd_value::iter_vsize_parts(std::function<void(sd_imported_value*)> const&) {}

sd_value* sd_value::from_bytes(sd_type const* type, sd_buffer const& buffer, unsigned long& offset,
                               bool with_vsize_parts)
{
    if (!type || buffer.empty())
        return new sd_untyped_variant_constructor_value();

    sd_value* v = nullptr;
    if (auto* pt = dynamic_cast<sd_predefined_type const*>(type))
        v = sd_predefined_value::from_bytes(pt, buffer, offset);
    else if (auto* st = dynamic_cast<sd_struct_type const*>(type))
        v = new sd_list_values(st, buffer, offset);
    else if (auto* at = dynamic_cast<sd_array_type const*>(type))
        v = new sd_list_values(at->base_type.get(), at->dims, buffer, offset);
    else if (auto* et = dynamic_cast<sd_enum_type const*>(type))
        v = new sd_enum_value(et, buffer, offset);
    else if (auto* vt = dynamic_cast<sd_variant_type const*>(type))
        v = new sd_variant_value(vt, buffer, offset);
    else if (auto* it = dynamic_cast<sd_imported_type const*>(type))
        v = new sd_imported_value(it, buffer, offset);
    if (!v || !with_vsize_parts)
        return v;

    // The variable parts follow the whole image, in the order in which the
    // walk of the value meets the variable-size imported parts.
    std::unique_ptr<sd_value, void (*)(sd_value*)> hold(v, destroy_decoded);
    v->iter_vsize_parts([&buffer, &offset](sd_imported_value* part) {
        unsigned long len = static_cast<unsigned long>(buffer.read<std::uint64_t>(offset));
        part->bytes.resize(len);
        // Even an empty part goes through the range check of its position.
        unsigned char none;
        buffer.read_at(len ? part->bytes.data() : &none, len, offset);
    });
    return hold.release();
}

// ---- sd_none_value, sd_untyped_variant_constructor_value -------------------

std::string sd_none_value::to_string() const
{
    return "none";
}

int sd_none_value::to_bytes(sd_buffer&, sd_type const*, unsigned long*) const
{
    return 0;
}

std::string sd_untyped_variant_constructor_value::to_string() const
{
    return std::string();
}

int sd_untyped_variant_constructor_value::to_bytes(sd_buffer&, sd_type const* type,
                                                   unsigned long*) const
{
    return type ? -1 : 0;
}

// ---- scalars ----------------------------------------------------------------

sd_predefined_value* sd_predefined_value::from_bytes(sd_predefined_type const* type,
                                                     void const* bytes)
{
    switch (type->kind) {
    case SD_KIND_CHAR8: return new_scalar<sd_predefined_char8_value>(bytes);
    case SD_KIND_CHAR16: return new_scalar<sd_predefined_char16_value>(bytes);
    case SD_KIND_CHAR32: return new_scalar<sd_predefined_char32_value>(bytes);
    case SD_KIND_BOOL: return new_scalar<sd_predefined_bool_value>(bytes);
    case SD_KIND_INT8: return new_scalar<sd_predefined_int8_value>(bytes);
    case SD_KIND_INT16: return new_scalar<sd_predefined_int16_value>(bytes);
    case SD_KIND_INT32: return new_scalar<sd_predefined_int32_value>(bytes);
    case SD_KIND_INT64: return new_scalar<sd_predefined_int64_value>(bytes);
    case SD_KIND_UINT8: return new_scalar<sd_predefined_uint8_value>(bytes);
    case SD_KIND_UINT16: return new_scalar<sd_predefined_uint16_value>(bytes);
    case SD_KIND_UINT32: return new_scalar<sd_predefined_uint32_value>(bytes);
    case SD_KIND_UINT64: return new_scalar<sd_predefined_uint64_value>(bytes);
    case SD_KIND_FLOAT32: return new_scalar<sd_predefined_float32_value>(bytes);
    case SD_KIND_FLOAT64: return new_scalar<sd_predefined_float64_value>(bytes);
    }
    return nullptr;
}

sd_predefined_value* sd_predefined_value::from_bytes(sd_predefined_type const* type,
                                                     sd_buffer const& buffer,
                                                     unsigned long& offset)
{
    // Copied out through read_at so that an image cut short by the end of
    // the buffer reads as zeros instead of running past it.
    unsigned char raw[sizeof(std::uint64_t)] = {};
    unsigned long n = std::min<unsigned long>(type->mem_size(), sizeof raw);
    unsigned long p = offset;
    buffer.read_at(raw, n, p);
    sd_predefined_value* v = from_bytes(type, raw);
    if (v)
        offset += type->mem_size();
    return v;
}

template <class T, int Kind>
std::string sd_predefined_value_base<T, Kind>::to_string() const
{
    // The concrete char and bool classes override this; what reaches here for
    // their kinds is a clone, which shows the number.
    if constexpr (Kind == SD_KIND_FLOAT32 || Kind == SD_KIND_FLOAT64)
        return format_text("%f", static_cast<double>(value));
    else if constexpr (Kind == SD_KIND_UINT64)
        return format_text("%lu", static_cast<unsigned long>(value));
    else if constexpr (Kind == SD_KIND_INT64)
        return format_text("%ld", static_cast<long>(value));
    else if constexpr (Kind == SD_KIND_UINT32 || Kind == SD_KIND_CHAR32)
        return format_text("%u", static_cast<unsigned int>(value));
    else
        return format_text("%d", static_cast<int>(value));
}

template <class T, int Kind>
int sd_predefined_value_base<T, Kind>::to_bytes(sd_buffer& buffer, sd_type const* type,
                                                unsigned long* offset) const
{
    // No conversion here, not even between kinds of one width: that is the
    // converters' business.
    if (type) {
        auto* pt = dynamic_cast<sd_predefined_type const*>(type);
        if (!pt || pt->kind != Kind)
            return -1;
    }
    if (!offset) {
        buffer.append(&value, sizeof value);
        return 0;
    }
    // Unlike write_at, a scalar leaves whatever stands behind it alone.
    if (buffer.size() < *offset + sizeof value)
        buffer.resize(*offset + sizeof value);
    std::memcpy(buffer.at(*offset), &value, sizeof value);
    *offset += sizeof value;
    return 0;
}

template class sd_predefined_value_base<unsigned char, 0>;
template class sd_predefined_value_base<unsigned short, 1>;
template class sd_predefined_value_base<unsigned int, 2>;
template class sd_predefined_value_base<unsigned char, 3>;
template class sd_predefined_value_base<signed char, 4>;
template class sd_predefined_value_base<short, 5>;
template class sd_predefined_value_base<int, 6>;
template class sd_predefined_value_base<long, 7>;
template class sd_predefined_value_base<unsigned char, 8>;
template class sd_predefined_value_base<unsigned short, 9>;
template class sd_predefined_value_base<unsigned int, 10>;
template class sd_predefined_value_base<unsigned long, 11>;
template class sd_predefined_value_base<float, 12>;
template class sd_predefined_value_base<double, 13>;

std::string sd_predefined_char8_value::to_string() const
{
    return quoted_low_byte(value);
}

std::string sd_predefined_char16_value::to_string() const
{
    return quoted_low_byte(value);
}

std::string sd_predefined_char32_value::to_string() const
{
    return quoted_low_byte(value);
}

std::string sd_predefined_bool_value::to_string() const
{
    return value ? "true" : "false";
}

// ---- sd_list_values -----------------------------------------------------------

sd_list_values::sd_list_values(std::vector<sd_value*> values) : values(std::move(values)) {}

sd_list_values::sd_list_values(sd_struct_type const* type, sd_buffer const& buffer,
                               unsigned long& offset)
{
    decoded_children_guard guard(values);
    values.reserve(type->fields.size());
    for (auto const& field : type->fields) {
        unsigned long pos = offset + field->offset;
        push_decoded(values, sd_value::from_bytes(field->type.get(), buffer, pos, false));
    }
    guard.release();
    // The stride is the struct's size, whatever the fields consumed.
    offset += type->mem_size();
}

sd_list_values::sd_list_values(sd_type const* base_type, std::vector<unsigned long> const& dims,
                               sd_buffer const& buffer, unsigned long& offset)
{
    decoded_children_guard guard(values);
    // The count comes from a type record; it is not trusted for a reserve.
    unsigned long count = dims.empty() ? 0 : dims.front();
    if (dims.size() <= 1) {
        for (unsigned long i = 0; i < count; ++i)
            push_decoded(values, sd_value::from_bytes(base_type, buffer, offset, false));
    } else {
        std::vector<unsigned long> const inner(dims.begin() + 1, dims.end());
        for (unsigned long i = 0; i < count; ++i)
            push_decoded(values, new sd_list_values(base_type, inner, buffer, offset));
    }
    guard.release();
}

sd_list_values::~sd_list_values()
{
    for (sd_value* child : values)
        delete child;
}

std::string sd_list_values::to_string() const
{
    std::string s = "(";
    for (unsigned long i = 0; i < values.size(); ++i) {
        if (i)
            s += ',';
        if (values[i])
            s += values[i]->to_string();
    }
    s += ')';
    return s;
}

int sd_list_values::to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const
{
    if (!type)
        return -1;

    if (auto* st = dynamic_cast<sd_struct_type const*>(type)) {
        if (values.size() != st->fields.size()) {
            sd_breakpoint();
            return -1;
        }
        unsigned long base = offset ? *offset : buffer.size();
        for (unsigned long i = 0; i < values.size(); ++i) {
            sd_struct_type_field const& field = *st->fields[i];
            unsigned long pos = base + field.offset;
            // Children always go in cursor mode, so a gap that opens by growth
            // reads as zeros. No padding follows the last field: the cursor
            // stops at the end of the furthest one.
            if (!values[i] || values[i]->to_bytes(buffer, field.type.get(), &pos) != 0) {
                sd_breakpoint();
                return -1;
            }
            if (offset && *offset < pos)
                *offset = pos;
        }
        return 0;
    }

    if (auto* at = dynamic_cast<sd_array_type const*>(type)) {
        unsigned long count = at->dims.empty() ? 0 : at->dims.front();
        if (values.size() != count) {
            sd_breakpoint();
            return -1;
        }
        if (values.empty())
            return 0;
        // Children share this call's cursor (or append one after the other),
        // so each one's stride is only what it actually wrote.
        auto encode_children = [&](sd_type const* child_type) {
            for (sd_value* child : values) {
                if (!child || child->to_bytes(buffer, child_type, offset) != 0) {
                    sd_breakpoint();
                    return -1;
                }
            }
            return 0;
        };
        if (at->dims.size() == 1)
            return encode_children(at->base_type.get());
        sd_array_type const inner(0, at->base_type,
                                  std::vector<unsigned long>(at->dims.begin() + 1, at->dims.end()));
        return encode_children(&inner);
    }

    return -1;
}

void sd_list_values::iter_vsize_parts(std::function<void(sd_imported_value*)> const& visit)
{
    for (sd_value* child : values)
        if (child)
            child->iter_vsize_parts(visit);
}

// ---- sd_enum_value ------------------------------------------------------------

sd_enum_value::sd_enum_value(char const* name) : name(name) {}

sd_enum_value::sd_enum_value(sd_enum_type const* type, sd_buffer const& buffer,
                             unsigned long& offset)
{
    sd_predefined_type const* base = type->base_type.get();
    unsigned char raw[sizeof(std::uint64_t)] = {};
    unsigned long n = std::min<unsigned long>(base->mem_size(), sizeof raw);
    unsigned long p = offset;
    buffer.read_at(raw, n, p);
    long number = 0;
    sd_predefined_convert(raw, base->kind, &number, SD_KIND_INT64);

    // An integer without an enumerator is no error: the name stays empty.
    auto enumerator = type->find_value(number);
    if (!enumerator) {
        offset += base->mem_size();
        return;
    }
    name = enumerator->name;
    int_value = number;
    predefined_value.reset(sd_predefined_value::from_bytes(base, buffer, offset));
}

std::string sd_enum_value::to_string() const
{
    return name;
}

int sd_enum_value::to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const
{
    auto* et = dynamic_cast<sd_enum_type const*>(type);
    if (!et)
        return -1;
    auto enumerator = et->find_value(name, false);
    if (!enumerator) {
        sd_breakpoint();
        return -1;
    }
    // Only the name counts; int_value and predefined_value are what a decode
    // found and play no part here.
    unsigned char image[sizeof(std::uint64_t)] = {};
    unsigned long n = std::min<unsigned long>(et->mem_size(), sizeof image);
    long number = enumerator->value();
    sd_predefined_convert(&number, SD_KIND_INT64, image, et->base_type->kind);
    put_bytes(buffer, image, n, offset);
    return 0;
}

// ---- sd_variant_value ---------------------------------------------------------

sd_variant_value::sd_variant_value(char const* name, sd_value* value) : name(name), value(value) {}

sd_variant_value::sd_variant_value(sd_variant_type const* type, sd_buffer const& buffer,
                                   unsigned long& offset)
{
    // The first constructor whose own tag position holds its tag wins; no
    // match leaves an empty name, which is no error.
    for (auto const& ctor : type->constructors) {
        unsigned long p = offset + ctor->tag_offset;
        if (buffer.read<std::int32_t>(p) != ctor->tag_value)
            continue;
        name = ctor->name;
        if (ctor->value_type) {
            unsigned long pos = offset + ctor->value_offset;
            value = sd_value::from_bytes(ctor->value_type.get(), buffer, pos, false);
        }
        break;
    }
    offset += type->mem_size();
}

std::string sd_variant_value::to_string() const
{
    if (name.empty())
        return "?";
    std::string s = name;
    s += '{';
    if (value)
        s += value->to_string();
    s += '}';
    return s;
}

int sd_variant_value::to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const
{
    auto* vt = dynamic_cast<sd_variant_type const*>(type);
    if (!vt)
        return -1;
    auto ctor = vt->find_constructor(name);
    if (!ctor) {
        sd_breakpoint();
        return -1;
    }

    unsigned long base = offset ? *offset : buffer.size();
    unsigned long pos = base + ctor->tag_offset;
    if (buffer.size() < pos + 4)
        buffer.resize(pos + 4);
    std::int32_t tag = ctor->tag_value;
    std::memcpy(buffer.at(pos), &tag, sizeof tag);
    pos += sizeof tag;

    if (ctor->value_type) {
        pos = base + ctor->value_offset;
        // A value written through write_at (imported, enum) cuts off a tag
        // that stands behind it; the padding below then reads as zeros.
        if (!value || value->to_bytes(buffer, ctor->value_type.get(), &pos) != 0) {
            sd_breakpoint();
            return -1;
        }
    }

    // The padding goes to the buffer's end, not to the position: the two
    // agree as long as the variant is the last thing written.
    unsigned long written = pos - base;
    if (written < vt->mem_size()) {
        buffer.resize(buffer.size() + (vt->mem_size() - written));
        pos = buffer.size();
    }
    if (offset && *offset < pos)
        *offset = pos;
    return 0;
}

// ---- sd_imported_value --------------------------------------------------------

sd_imported_value::sd_imported_value(std::vector<unsigned char> bytes) : bytes(std::move(bytes)) {}

sd_imported_value::sd_imported_value(sd_imported_type const* type, sd_buffer const& buffer,
                                     unsigned long& offset)
    : is_vsize(type->is_variable_size ? 1 : 0)
{
    if (is_vsize) {
        // The fixed part is of no use without the caller's callbacks; the
        // variable part behind the image is read by the outermost decode.
        offset += type->mem_size();
        return;
    }
    unsigned long n = type->mem_size();
    bytes.resize(n);
    unsigned char none;
    buffer.read_at(n ? bytes.data() : &none, n, offset);
}

std::string sd_imported_value::to_string() const
{
    static char const digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(2 * bytes.size());
    for (unsigned char b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 0x0F];
    }
    return s;
}

int sd_imported_value::to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const
{
    auto* it = dynamic_cast<sd_imported_type const*>(type);
    if (!it)
        return -1;
    // For a variable-size type mem_size is the fixed part; a value decoded
    // from a file holds the variable data and so rarely matches.
    if (bytes.size() != it->mem_size()) {
        sd_breakpoint();
        return -1;
    }
    put_bytes(buffer, bytes.data(), bytes.size(), offset);
    return 0;
}

void sd_imported_value::iter_vsize_parts(std::function<void(sd_imported_value*)> const& visit)
{
    if (is_vsize)
        visit(this);
}

} // namespace orva_sd
