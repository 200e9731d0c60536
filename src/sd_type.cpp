// The type system: the fourteen shared scalar types and their table, the
// composite classes with their layout rules and text forms, and the type
// records that sd_stdio_file chains in the file (sd_serialize_type and back).
#include "sd_type.h"

#include "orva_sd.h"
#include "sd_converter.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace orva_sd {

// ---------------------------------------------------------------------------
// sd_type

sd_type::~sd_type() = default;

void sd_type::set_name(char const* name)
{
    m_name = name;
}

void sd_type::iter_vsize_parts(sd_vsize_part_fn, unsigned long) const
{
}

// ---------------------------------------------------------------------------
// Predefined types

std::string sd_predefined_type_kind_to_string(sd_predefined_type_kind kind)
{
    switch (kind) {
    case SD_KIND_CHAR8: return "char8";
    case SD_KIND_CHAR16: return "char16";
    case SD_KIND_CHAR32: return "char32";
    case SD_KIND_BOOL: return "bool";
    case SD_KIND_INT8: return "int8";
    case SD_KIND_INT16: return "int16";
    case SD_KIND_INT32: return "int32";
    case SD_KIND_INT64: return "int64";
    case SD_KIND_UINT8: return "uint8";
    case SD_KIND_UINT16: return "uint16";
    case SD_KIND_UINT32: return "uint32";
    case SD_KIND_UINT64: return "uint64";
    case SD_KIND_FLOAT32: return "float32";
    case SD_KIND_FLOAT64: return "float64";
    }
    return "<unknown>";
}

// The kind is the iid, the handle and the table key at once, so a scalar
// needs no record in any file. The base set_name is called by name: the
// override would end the process.
sd_predefined_type::sd_predefined_type(sd_predefined_type_kind kind)
    : sd_type(static_cast<int>(kind)), kind(kind)
{
    sd_type::set_name(sd_predefined_type_kind_to_string(kind).c_str());
}

std::string sd_predefined_type::to_string() const
{
    return sd_predefined_type_kind_to_string(kind);
}

// A scalar cannot be renamed and the flat interface has no error code for
// trying: with no exception in flight this rethrow terminates the process.
void sd_predefined_type::set_name(char const*)
{
    throw;
}

unsigned long sd_predefined_type::mem_size() const
{
    switch (kind) {
    case SD_KIND_CHAR8:
    case SD_KIND_BOOL:
    case SD_KIND_INT8:
    case SD_KIND_UINT8:
        return 1;
    case SD_KIND_CHAR16:
    case SD_KIND_INT16:
    case SD_KIND_UINT16:
        return 2;
    case SD_KIND_CHAR32:
    case SD_KIND_INT32:
    case SD_KIND_UINT32:
    case SD_KIND_FLOAT32:
        return 4;
    case SD_KIND_INT64:
    case SD_KIND_UINT64:
    case SD_KIND_FLOAT64:
        return 8;
    }
    return 0;
}

// One object per kind for the whole process. All of these are dynamically
// initialised in this translation unit in the order written here, so the
// globals exist before the two tables that share them.
sd_predefined_type_ptr SD_CHAR8 = std::make_shared<sd_predefined_type>(SD_KIND_CHAR8);
sd_predefined_type_ptr SD_CHAR16 = std::make_shared<sd_predefined_type>(SD_KIND_CHAR16);
sd_predefined_type_ptr SD_CHAR32 = std::make_shared<sd_predefined_type>(SD_KIND_CHAR32);
sd_predefined_type_ptr SD_BOOL = std::make_shared<sd_predefined_type>(SD_KIND_BOOL);
sd_predefined_type_ptr SD_INT8 = std::make_shared<sd_predefined_type>(SD_KIND_INT8);
sd_predefined_type_ptr SD_INT16 = std::make_shared<sd_predefined_type>(SD_KIND_INT16);
sd_predefined_type_ptr SD_INT32 = std::make_shared<sd_predefined_type>(SD_KIND_INT32);
sd_predefined_type_ptr SD_INT64 = std::make_shared<sd_predefined_type>(SD_KIND_INT64);
sd_predefined_type_ptr SD_UINT8 = std::make_shared<sd_predefined_type>(SD_KIND_UINT8);
sd_predefined_type_ptr SD_UINT16 = std::make_shared<sd_predefined_type>(SD_KIND_UINT16);
sd_predefined_type_ptr SD_UINT32 = std::make_shared<sd_predefined_type>(SD_KIND_UINT32);
sd_predefined_type_ptr SD_UINT64 = std::make_shared<sd_predefined_type>(SD_KIND_UINT64);
sd_predefined_type_ptr SD_FLOAT32 = std::make_shared<sd_predefined_type>(SD_KIND_FLOAT32);
sd_predefined_type_ptr SD_FLOAT64 = std::make_shared<sd_predefined_type>(SD_KIND_FLOAT64);

static std::vector<sd_predefined_type_ptr> predefined_in_kind_order()
{
    return {SD_CHAR8,  SD_CHAR16, SD_CHAR32,  SD_BOOL,    SD_INT8,   SD_INT16,   SD_INT32,
            SD_INT64,  SD_UINT8,  SD_UINT16,  SD_UINT32,  SD_UINT64, SD_FLOAT32, SD_FLOAT64};
}

std::map<long, sd_predefined_type_ptr> sd_predefined_types::all_map_ = [] {
    std::map<long, sd_predefined_type_ptr> m;
    for (auto const& t : predefined_in_kind_order())
        m.emplace(static_cast<long>(t->kind), t);
    return m;
}();

// The order of this list is visible to callers (sdt_get_all_types, dump).
std::vector<sd_predefined_type_ptr> sd_predefined_types::all_ = predefined_in_kind_order();

sd_predefined_type_ptr sd_predefined_types::get(long id)
{
    auto it = all_map_.find(id);
    return it == all_map_.end() ? nullptr : it->second;
}

// ---------------------------------------------------------------------------
// Arrays

sd_array_type::sd_array_type(int iid, sd_type_ptr base_type, std::vector<unsigned long> dims)
    : sd_type(iid), base_type(std::move(base_type)), dims(std::move(dims))
{
}

std::string sd_array_type::to_string() const
{
    std::string s = base_type->to_string();
    for (unsigned long d : dims) {
        s += '^';
        s += std::to_string(d);
    }
    return s;
}

unsigned long sd_array_type::mem_size() const
{
    unsigned long n = base_type->mem_size();
    for (unsigned long d : dims)
        n *= d;
    return n;
}

void sd_array_type::iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const
{
    // The visits depend on the element type alone, so an element without
    // imported parts has none at any position: one probe spares the walk over
    // every element of a large scalar array on each append.
    bool any = false;
    auto probe = [&any](unsigned long, sd_imported_type const*) { any = true; };
    base_type->iter_vsize_parts(probe, offset);
    if (!any)
        return;
    unsigned long e = base_type->mem_size();
    unsigned long end = offset + mem_size();
    for (unsigned long p = offset; p < end; p += e)
        base_type->iter_vsize_parts(fn, p);
}

// ---------------------------------------------------------------------------
// Structs

// A size of -1 stands for "computed": the block grows to the furthest field end.
sd_struct_type::sd_struct_type(int iid, unsigned long size)
    : sd_type(iid), mem_bytes(size == static_cast<unsigned long>(-1) ? 0 : size),
      fixed_size(size != static_cast<unsigned long>(-1))
{
}

std::string sd_struct_type::to_string() const
{
    std::string s = "struct {";
    bool first = true;
    for (auto const& f : fields) {
        if (!first)
            s += ", ";
        first = false;
        s += f->name;
        s += ':';
        s += f->type->to_string();
    }
    s += '}';
    return s;
}

void sd_struct_type::iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const
{
    for (auto const& f : fields)
        f->type->iter_vsize_parts(fn, offset + f->offset);
}

void sd_struct_type::add_field(char const* name, sd_type_ptr const& type, unsigned long offset)
{
    // Packing follows the last field added, not the highest one: a caller who
    // adds fields out of order passes their offsets. No alignment is applied
    // because the block is the caller's own memory image.
    if (offset == static_cast<unsigned long>(-1))
        offset = fields.empty() ? 0 : fields.back()->offset + fields.back()->type->mem_size();
    fields.push_back(std::make_shared<sd_struct_type_field>(name, type, offset));
    if (!fixed_size) {
        unsigned long end = offset + type->mem_size();
        if (end > mem_bytes)
            mem_bytes = end;
    }
}

std::shared_ptr<sd_struct_type_field> sd_struct_type::find_field(std::string const& name) const
{
    for (auto const& f : fields)
        if (f->name == name)
            return f;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Enums

sd_enum_type_value::~sd_enum_type_value() = default;

void sd_enum_type_value::value(void* out) const
{
    sd_predefined_convert(&m_value, SD_KIND_INT64, out, enum_type->base_type->kind);
}

sd_enum_type::sd_enum_type(int iid, sd_predefined_type_ptr base_type)
    : sd_type(iid), base_type(std::move(base_type))
{
}

std::string sd_enum_type::to_string() const
{
    std::string s = "enum {";
    bool first = true;
    for (auto const& v : values) {
        if (!first)
            s += ", ";
        first = false;
        s += v->name;
        s += ':';
        s += std::to_string(v->value());
    }
    s += '}';
    return s;
}

void sd_enum_type::add_value(char const* name, long value)
{
    values.push_back(std::make_shared<sd_enum_type_value>(this, name, value));
}

void sd_enum_type::add_value(char const* name, void const* value)
{
    long v = 0;
    if (value) {
        sd_predefined_convert(value, base_type->kind, &v, SD_KIND_INT64);
    } else {
        // Automatic numbers start at 1 (variant tags start at 0), and the
        // floor of 0 keeps an all-negative list from handing out 0 or less.
        long highest = 0;
        for (auto const& e : values)
            if (e->value() > highest)
                highest = e->value();
        // Wraps instead of overflowing when the highest is LONG_MAX.
        v = static_cast<long>(static_cast<unsigned long>(highest) + 1);
    }
    add_value(name, v);
}

// The text after the last ':', so that "A::X", "B::X" and "X" compare equal.
static std::string_view last_name_component(std::string_view s)
{
    auto p = s.rfind(':');
    return p == std::string_view::npos ? s : s.substr(p + 1);
}

std::shared_ptr<sd_enum_type_value> sd_enum_type::find_value(std::string const& name,
                                                             bool exact) const
{
    for (auto const& v : values)
        if (v->name == name)
            return v;
    if (exact)
        return nullptr;
    std::string_view wanted = last_name_component(name);
    for (auto const& v : values)
        if (last_name_component(v->name) == wanted)
            return v;
    return nullptr;
}

std::shared_ptr<sd_enum_type_value> sd_enum_type::find_value(long value) const
{
    for (auto const& v : values)
        if (v->value() == value)
            return v;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Variants

sd_variant_type::sd_variant_type(int iid, unsigned long size)
    : sd_type(iid), mem_bytes(size == static_cast<unsigned long>(-1) ? 0 : size),
      fixed_size(size != static_cast<unsigned long>(-1))
{
}

// No word in front: " | " between constructors is the whole frame, so a
// variant without constructors has an empty text.
std::string sd_variant_type::to_string() const
{
    std::string s;
    bool first = true;
    for (auto const& c : constructors) {
        if (!first)
            s += " | ";
        first = false;
        s += c->name;
        s += '{';
        if (c->value_type)
            s += c->value_type->to_string();
        s += '}';
    }
    return s;
}

void sd_variant_type::iter_vsize_parts(sd_vsize_part_fn, unsigned long) const
{
}

void sd_variant_type::add_constructor(char const* name, sd_type_ptr const& type,
                                      unsigned long tag_offset, int tag_value,
                                      unsigned long value_offset)
{
    // The defaults describe a 32-bit tag at the start with the payload right
    // behind it.
    if (tag_offset == static_cast<unsigned long>(-1))
        tag_offset = 0;
    if (value_offset == static_cast<unsigned long>(-1))
        value_offset = 4;
    if (tag_value == -1) {
        int highest = -1;
        for (auto const& c : constructors)
            if (c->tag_value > highest)
                highest = c->tag_value;
        // Wraps instead of overflowing when the highest is INT_MAX.
        tag_value = static_cast<int>(static_cast<unsigned int>(highest) + 1u);
    }
    constructors.push_back(std::make_shared<sd_variant_type_constructor>(
        name, tag_offset, tag_value, value_offset, type));
    if (fixed_size)
        return;
    // The tag's own place is not counted: a caller who puts the tag behind the
    // payload passes a size.
    if (type) {
        unsigned long end = value_offset + type->mem_size();
        if (end > mem_bytes)
            mem_bytes = end;
    } else if (mem_bytes < 4) {
        mem_bytes = 4;
    }
}

std::shared_ptr<sd_variant_type_constructor>
sd_variant_type::find_constructor(std::string const& name) const
{
    for (auto const& c : constructors)
        if (c->name == name)
            return c;
    return nullptr;
}

std::shared_ptr<sd_variant_type_constructor> sd_variant_type::find_constructor(int tag) const
{
    for (auto const& c : constructors)
        if (c->tag_value == tag)
            return c;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Imported types

sd_imported_type::sd_imported_type(int iid, unsigned long size)
    : sd_type(iid), mem_bytes(size), size_of(nullptr), write_to(nullptr), is_variable_size(false)
{
}

// Variable size is decided by the constructor, not by the pointers: a type
// read back from a file keeps the flag with no callbacks.
sd_imported_type::sd_imported_type(int iid, unsigned long size, sd_size_of_fn size_of,
                                   sd_write_to_fn write_to)
    : sd_type(iid), mem_bytes(size), size_of(size_of), write_to(write_to), is_variable_size(true)
{
}

std::string sd_imported_type::to_string() const
{
    return is_variable_size ? "<variable size imported>" : "<imported>";
}

// Fixed-size parts are visited too; the sequence code skips them.
void sd_imported_type::iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const
{
    fn(offset, this);
}

// ---------------------------------------------------------------------------
// Type records
//
// Behind the 20-byte frame (u32 block_size, i64 prev, i64 next) every record
// holds i32 iid at 20 and u8 klass at 24; the class body starts at 25 and the
// name (u32 length, bytes) follows it. A string is always u32 length + bytes.
//
//   struct  1: u64 size, u32 n, n x (u64 offset, string name, i32 type iid)
//   array   2: u8 n, n x u64 dim, i32 base iid
//   enum    3: i32 base kind, u32 n, n x (string name, i64 value)
//   variant 4: u64 size, u32 n, n x (string name, u64 tag offset,
//              i32 tag value, u64 value offset, i32 value type iid or -1)
//   imported 5: u64 size, u8 variable (0 fixed, anything else variable)
//
// Struct fields put the offset first and variant constructors the name
// first; that asymmetry is part of the format. References to other types are
// iids only: 0..13 for a kind, earlier records of the chain otherwise.

static constexpr std::int32_t SD_NO_VALUE_TYPE_IID = -1;
static constexpr unsigned long SD_STRING_LENGTH_SIZE = 4;

void sd_serialize_type(sd_type_block const* block, sd_buffer& buffer)
{
    sd_type const* t = block->type.get();
    buffer.append(static_cast<std::uint32_t>(0)); // block_size, stored at the end
    buffer.append(static_cast<std::int64_t>(block->prev_block_pos));
    buffer.append(static_cast<std::int64_t>(block->next_block_pos));
    buffer.append(static_cast<std::int32_t>(t->iid()));
    buffer.append(static_cast<std::uint8_t>(t->klass()));

    if (auto a = dynamic_cast<sd_array_type const*>(t)) {
        // Only the low 8 bits of the count fit; more than 255 dimensions do
        // not read back.
        buffer.append(static_cast<std::uint8_t>(a->dims.size()));
        for (unsigned long d : a->dims)
            buffer.append(static_cast<std::uint64_t>(d));
        buffer.append(static_cast<std::int32_t>(a->base_type->iid()));
    } else if (auto s = dynamic_cast<sd_struct_type const*>(t)) {
        buffer.append(static_cast<std::uint64_t>(s->mem_bytes));
        buffer.append(static_cast<std::uint32_t>(s->fields.size()));
        for (auto const& f : s->fields) {
            buffer.append(static_cast<std::uint64_t>(f->offset));
            buffer.append(f->name);
            buffer.append(static_cast<std::int32_t>(f->type->iid()));
        }
    } else if (auto e = dynamic_cast<sd_enum_type const*>(t)) {
        buffer.append(static_cast<std::int32_t>(e->base_type->iid()));
        buffer.append(static_cast<std::uint32_t>(e->values.size()));
        for (auto const& v : e->values) {
            buffer.append(v->name);
            buffer.append(static_cast<std::int64_t>(v->value()));
        }
    } else if (auto v = dynamic_cast<sd_variant_type const*>(t)) {
        buffer.append(static_cast<std::uint64_t>(v->mem_bytes));
        buffer.append(static_cast<std::uint32_t>(v->constructors.size()));
        for (auto const& c : v->constructors) {
            buffer.append(c->name);
            buffer.append(static_cast<std::uint64_t>(c->tag_offset));
            buffer.append(static_cast<std::int32_t>(c->tag_value));
            buffer.append(static_cast<std::uint64_t>(c->value_offset));
            buffer.append(static_cast<std::int32_t>(
                c->value_type ? c->value_type->iid() : SD_NO_VALUE_TYPE_IID));
        }
    } else if (auto i = dynamic_cast<sd_imported_type const*>(t)) {
        buffer.append(static_cast<std::uint64_t>(i->mem_bytes));
        buffer.append(static_cast<std::uint8_t>(i->is_variable_size ? 1 : 0));
    }

    // Written even when empty, though a reader treats the name as optional.
    buffer.append(t->name());
    std::uint32_t size = static_cast<std::uint32_t>(buffer.size());
    std::memcpy(buffer.at(SD_BLOCK_SIZE_OFFSET), &size, sizeof size);
}

// Records written before names existed end behind their class body, so a
// name field is read only when its length field fits in what is left.
static std::string read_optional_name(sd_buffer const& buffer, unsigned long& offset)
{
    if (offset + SD_STRING_LENGTH_SIZE > buffer.size())
        return std::string();
    return buffer.read_at(offset);
}

std::shared_ptr<sd_type_block> sd_deserialize_type(sd_buffer const& buffer, long pos,
                                                   sd_file const* file)
{
    // Every read below may raise out_of_range on a short record, and any
    // allocation may fail; both end in the empty result without the hook,
    // dropping whatever was built so far.
    try {
        unsigned long off = SD_BLOCK_SIZE_OFFSET;
        std::uint32_t block_size = buffer.read<std::uint32_t>(off);
        if (block_size != buffer.size()) {
            sd_breakpoint();
            return nullptr;
        }
        long prev = static_cast<long>(buffer.read<std::int64_t>(off));
        long next = static_cast<long>(buffer.read<std::int64_t>(off));
        int iid = buffer.read<std::int32_t>(off);
        int klass = buffer.read<std::uint8_t>(off);
        // An unknown class is refused without the hook, unlike the size
        // mismatch above; callers rely on the difference in hook counts.
        if (klass < SD_CLASS_STRUCT || klass > SD_CLASS_IMPORTED)
            return nullptr;

        sd_type_ptr type;
        std::string name;
        bool name_read = false;

        switch (klass) {
        case SD_CLASS_STRUCT: {
            unsigned long size = buffer.read<std::uint64_t>(off);
            std::uint32_t count = buffer.read<std::uint32_t>(off);
            auto s = std::make_shared<sd_struct_type>(iid, size);
            for (std::uint32_t i = 0; i < count; ++i) {
                unsigned long field_offset = buffer.read<std::uint64_t>(off);
                std::string field_name = buffer.read_at(off);
                int field_iid = buffer.read<std::int32_t>(off);
                sd_type_ptr field_type = file->find_type_by_iid(field_iid);
                if (!field_type) {
                    sd_breakpoint();
                    return nullptr;
                }
                s->add_field(field_name.c_str(), field_type, field_offset);
            }
            type = s;
            break;
        }
        case SD_CLASS_ARRAY: {
            unsigned count = buffer.read<std::uint8_t>(off);
            std::vector<unsigned long> dims;
            dims.reserve(count);
            for (unsigned i = 0; i < count; ++i)
                dims.push_back(buffer.read<std::uint64_t>(off));
            int base_iid = buffer.read<std::int32_t>(off);
            // The name comes before the base lookup here, so a short name
            // field fails as a short read before an unknown base is reported.
            name = read_optional_name(buffer, off);
            name_read = true;
            sd_type_ptr base = file->find_type_by_iid(base_iid);
            if (!base) {
                sd_breakpoint();
                return nullptr;
            }
            type = std::make_shared<sd_array_type>(iid, base, std::move(dims));
            break;
        }
        case SD_CLASS_ENUM: {
            // Only a predefined kind may be an enum's base, so the file's own
            // types are not consulted even for an iid that names one.
            int base_iid = buffer.read<std::int32_t>(off);
            sd_predefined_type_ptr base = sd_predefined_types::get(static_cast<long>(base_iid));
            if (!base) {
                sd_breakpoint();
                return nullptr;
            }
            auto e = std::make_shared<sd_enum_type>(iid, base);
            std::uint32_t count = buffer.read<std::uint32_t>(off);
            for (std::uint32_t i = 0; i < count; ++i) {
                std::string value_name = buffer.read_at(off);
                long value = static_cast<long>(buffer.read<std::int64_t>(off));
                e->add_value(value_name.c_str(), value);
            }
            type = e;
            break;
        }
        case SD_CLASS_VARIANT: {
            unsigned long size = buffer.read<std::uint64_t>(off);
            std::uint32_t count = buffer.read<std::uint32_t>(off);
            auto v = std::make_shared<sd_variant_type>(iid, size);
            for (std::uint32_t i = 0; i < count; ++i) {
                std::string ctor_name = buffer.read_at(off);
                unsigned long tag_offset = buffer.read<std::uint64_t>(off);
                int tag_value = buffer.read<std::int32_t>(off);
                unsigned long value_offset = buffer.read<std::uint64_t>(off);
                int value_iid = buffer.read<std::int32_t>(off);
                sd_type_ptr value_type;
                if (value_iid != SD_NO_VALUE_TYPE_IID) {
                    value_type = file->find_type_by_iid(value_iid);
                    if (!value_type) {
                        sd_breakpoint();
                        return nullptr;
                    }
                }
                v->add_constructor(ctor_name.c_str(), value_type, tag_offset, tag_value,
                                   value_offset);
            }
            type = v;
            break;
        }
        case SD_CLASS_IMPORTED: {
            unsigned long size = buffer.read<std::uint64_t>(off);
            std::uint8_t variable = buffer.read<std::uint8_t>(off);
            name = read_optional_name(buffer, off);
            name_read = true;
            // The callbacks are code of the process that created the type;
            // a reader gets the flag without them.
            if (variable)
                type = std::make_shared<sd_imported_type>(iid, size, nullptr, nullptr);
            else
                type = std::make_shared<sd_imported_type>(iid, size);
            break;
        }
        }

        if (!name_read)
            name = read_optional_name(buffer, off);
        // Through the terminated text, so a name with a zero byte is cut there.
        type->set_name(name.c_str());
        return std::make_shared<sd_type_block>(type, pos, prev, next);
    } catch (...) {
        return nullptr;
    }
}

} // namespace orva_sd
