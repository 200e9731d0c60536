// The flat interface: each call resolves its handle through sd_factory (or
// takes it as an address), calls one method of a file, element, type, value
// or iterator, and maps the outcome to one return value.
#include "orva_sd.h"

#include "sd_element.h"
#include "sd_factory.h"
#include "sd_file.h"
#include "sd_sequence.h"
#include "sd_stdio_sequence_iterator.h"
#include "sd_stdio_value_iterator.h"
#include "sd_type.h"
#include "sd_value.h"

#include <cstring>
#include <list>
#include <new>
#include <string>
#include <vector>

using namespace orva_sd;

// Deliberately empty and out of line: a debugger breaks here, and a program
// that defines its own sd_breakpoint sees every call through the dynamic
// symbol table.
void sd_breakpoint() {}

namespace {

// The opaque C types are the class objects themselves.
inline sd_value* obj(sdd_value* p) { return reinterpret_cast<sd_value*>(p); }
inline sdd_value* handle(sd_value* p) { return reinterpret_cast<sdd_value*>(p); }
inline sd_sequence* obj(sdd_sequence* p) { return reinterpret_cast<sd_sequence*>(p); }
inline sdd_sequence* handle(sd_sequence* p) { return reinterpret_cast<sdd_sequence*>(p); }
inline sd_value_iterator* obj(sdd_value_iter* p) { return reinterpret_cast<sd_value_iterator*>(p); }
inline sdd_value_iter* handle(sd_value_iterator* p) { return reinterpret_cast<sdd_value_iter*>(p); }
inline sd_sequence_iterator* obj(sdd_sequence_iter* p)
{
    return reinterpret_cast<sd_sequence_iterator*>(p);
}
inline sdd_sequence_iter* handle(sd_sequence_iterator* p)
{
    return reinterpret_cast<sdd_sequence_iter*>(p);
}

// Element handles are addresses; the direct calls trust anything but the two
// values that can never name an element.
inline bool is_null_element(long element) { return element == -1 || element == 0; }
inline sd_element* element_at(long element) { return reinterpret_cast<sd_element*>(element); }
inline long element_handle(sd_element const* e) { return reinterpret_cast<long>(e); }

template <class T>
std::shared_ptr<T> t_get_as(long type)
{
    return std::dynamic_pointer_cast<T>(sd_factory::t_get(type));
}

// One sample of `type` as a raw image. to_bytes stops at the furthest byte
// written, but the raw calls take a whole mem_size from the image, so a
// short image is padded with zeros. An absent value encodes to nothing and
// stays empty, whose null data() the raw calls take as absent.
int encode_sample(sd_value const* value, sd_type const* type, sd_buffer& buffer)
{
    if (value->to_bytes(buffer, type, nullptr) != 0)
        return -1;
    if (!buffer.empty() && type && buffer.size() < type->mem_size())
        buffer.resize(type->mem_size());
    return 0;
}

// The indexed type getters go through these; a miss runs the hook here and
// again in the getter.
std::shared_ptr<sd_struct_type_field> sdt_priv_get_struct_field(long type, unsigned long index)
{
    auto st = t_get_as<sd_struct_type>(type);
    if (!st || index >= st->fields.size()) {
        sd_breakpoint();
        return nullptr;
    }
    return st->fields[index];
}

std::shared_ptr<sd_enum_type_value> sdt_priv_get_enum_value(long type, unsigned long index)
{
    auto et = t_get_as<sd_enum_type>(type);
    if (!et || index >= et->values.size()) {
        sd_breakpoint();
        return nullptr;
    }
    return et->values[index];
}

std::shared_ptr<sd_variant_type_constructor> sdt_priv_get_variant_constructor(long type,
                                                                              unsigned long index)
{
    auto vt = t_get_as<sd_variant_type>(type);
    if (!vt || index >= vt->constructors.size()) {
        sd_breakpoint();
        return nullptr;
    }
    return vt->constructors[index];
}

} // namespace

extern "C" {

// ---- Files ----------------------------------------------------------------

long sdf_create(char const* path)
{
    auto file = sd_factory::f_create(path);
    return file ? file->id() : -1;
}

long sdf_wcreate(wchar_t const* path)
{
    auto file = sd_factory::f_create(path);
    return file ? file->id() : -1;
}

long sdf_open(char const* path)
{
    auto file = sd_factory::f_open(path);
    return file ? file->id() : -1;
}

long sdf_wopen(wchar_t const* path)
{
    auto file = sd_factory::f_open(path);
    return file ? file->id() : -1;
}

int sdf_close(long file)
{
    return sd_factory::f_close(file);
}

bool sdf_is_valid_id(long file)
{
    return sd_factory::f_get(file) != nullptr;
}

char const* sdf_get_format_version(long file)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return nullptr;
    }
    // The registry keeps the file, and with it the text, alive.
    return f->format_version_str();
}

int sdf_flush(long file)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return -1;
    }
    return f->flush();
}

int sdf_set_flush_interval(long file, unsigned long milliseconds)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return -1;
    }
    f->set_flush_interval(milliseconds);
    return 0;
}

int sdf_dump(long file)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return -1;
    }
    return f->dump();
}

// ---- Elements -------------------------------------------------------------

long sde_create(long parent, char const* name, long type, sde_tag_kind kind)
{
    // An unresolvable type is how a pure grouping element is made.
    sd_type_ptr t = sd_factory::t_get(type);
    auto owner = sd_factory::e_get_and_owner(parent);
    if (!owner.first) {
        sd_breakpoint();
        return -1;
    }
    sd_element_ptr e = owner.first->create_element(std::string(name), kind, t, owner.second);
    return e ? element_handle(e.get()) : -1;
}

long sde_find_child(long parent, char const* name)
{
    auto owner = sd_factory::e_get_and_owner(parent);
    if (!owner.first) {
        sd_breakpoint();
        return -1;
    }
    std::string n(name);
    sd_element_ptr e = owner.second ? owner.second->find_child(n) : owner.first->find_root_element(n);
    return e ? element_handle(e.get()) : -1;
}

unsigned long sde_get_n_children(long parent)
{
    sd_element_list const* children = sd_factory::e_get_children(parent);
    if (!children) {
        sd_breakpoint();
        return 0;
    }
    return children->size();
}

long sde_get_child(long parent, unsigned long index)
{
    sd_element_list const* children = sd_factory::e_get_children(parent);
    if (!children || index >= children->size()) {
        sd_breakpoint();
        return -1;
    }
    return element_handle((*children)[index].get());
}

int sde_get_children(long parent, long* children)
{
    sd_element_list const* list = sd_factory::e_get_children(parent);
    if (!list) {
        sd_breakpoint();
        return -1;
    }
    for (auto const& e : *list)
        *children++ = element_handle(e.get());
    return 0;
}

bool sde_is_valid_id(long element)
{
    return sd_factory::e_get(element) != nullptr;
}

char const* sde_get_name(long element)
{
    if (is_null_element(element)) {
        sd_breakpoint();
        return nullptr;
    }
    return element_at(element)->name.c_str();
}

long sde_get_type(long element)
{
    if (is_null_element(element) || !element_at(element)->type) {
        sd_breakpoint();
        return -1;
    }
    return element_at(element)->type->id();
}

int sde_get_kind(long element)
{
    if (is_null_element(element)) {
        sd_breakpoint();
        return -1;
    }
    return static_cast<int>(element_at(element)->kind);
}

// The setters leave the hook of a failing store operation to the store.
int sde_set_name(long element, char const* name)
{
    if (is_null_element(element) || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    return e->file->set_element_name(e, std::string(name));
}

int sde_set_kind(long element, sde_tag_kind kind)
{
    if (is_null_element(element) || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    return e->file->set_element_kind(e, kind);
}

int sde_set_type(long element, long type)
{
    if (is_null_element(element) || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    // An unknown type handle makes the element one without type.
    sd_element* e = element_at(element);
    return e->file->set_element_type(e, sd_factory::t_get(type));
}

int sde_remove(long element)
{
    if (is_null_element(element) || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    return e->file->remove_element(e);
}

long sde_find(long file, char const* path)
{
    // An unknown file fails like a path that names nothing, rather than
    // being read through.
    auto f = sd_factory::f_get(file);
    sd_element_ptr e = f ? f->find_element(path) : nullptr;
    if (!e) {
        sd_breakpoint();
        return -1;
    }
    return element_handle(e.get());
}

long sde_find_part(long file, char const* path, char const** tail, long* type,
                   unsigned long* offset)
{
    auto f = sd_factory::f_get(file);
    sd_type_ptr part_type;
    // The tags say when a part is valid; this call tells only where it lies.
    std::list<variant_tag_info_t> tags;
    sd_element_ptr e = f ? f->find_element_part(path, tail, part_type, *offset, tags) : nullptr;
    if (!e || !part_type) {
        sd_breakpoint();
        return -1;
    }
    // For a row of a multi-dimensional array the type is a temporary that
    // dies on return: the caller gets a number with nothing behind it.
    *type = part_type->id();
    return element_handle(e.get());
}

// ---- Types ----------------------------------------------------------------

long sdt_struct_create(unsigned long size)
{
    auto t = sd_factory::t_create_struct(size);
    return t ? t->id() : -1;
}

long sdt_variant_create(unsigned long size)
{
    auto t = sd_factory::t_create_variant(size);
    return t ? t->id() : -1;
}

long sdt_imported_create(unsigned long size)
{
    auto t = sd_factory::t_create_imported(size);
    return t ? t->id() : -1;
}

long sdt_vsize_imported_create(unsigned long size, unsigned long long (*size_of)(void const*),
                               void (*write_to)(void const*, unsigned char*))
{
    auto t = sd_factory::t_create_vsize_imported(size, size_of, write_to);
    return t ? t->id() : -1;
}

long sdt_enum_create(long base_type)
{
    sd_predefined_type_ptr base = base_type == -1 ? SD_INT32 : t_get_as<sd_predefined_type>(base_type);
    if (!base) {
        sd_breakpoint();
        return -1;
    }
    auto t = sd_factory::t_create_enum(base);
    return t ? t->id() : -1;
}

long sdt_array_create(long base_type, unsigned long n_dims, unsigned long const* dims)
{
    sd_type_ptr base = sd_factory::t_get(base_type);
    if (!base) {
        sd_breakpoint();
        return -1;
    }
    std::vector<unsigned long> d;
    if (n_dims != 0)
        d.assign(dims, dims + n_dims);
    auto t = sd_factory::t_create_array(base, d);
    return t ? t->id() : -1;
}

int sdt_close(long type)
{
    return sd_factory::t_close(type);
}

int sdt_set_name(long type, char const* name)
{
    sd_type_ptr t = sd_factory::t_get(type);
    if (!t) {
        sd_breakpoint();
        return -1;
    }
    t->set_name(name);
    return 0;
}

int sdt_struct_add_field(long type, char const* name, unsigned long offset, long field_type)
{
    auto st = t_get_as<sd_struct_type>(type);
    if (!st) {
        sd_breakpoint();
        return -1;
    }
    st->add_field(name, sd_factory::t_get(field_type), offset);
    return 0;
}

int sdt_enum_add_value(long type, char const* name, void const* value)
{
    auto et = t_get_as<sd_enum_type>(type);
    if (!et) {
        sd_breakpoint();
        return -1;
    }
    et->add_value(name, value);
    return 0;
}

int sdt_variant_add_constructor(long type, char const* name, unsigned long tag_offset,
                                int tag_value, unsigned long value_offset, long value_type)
{
    auto vt = t_get_as<sd_variant_type>(type);
    if (!vt) {
        sd_breakpoint();
        return -1;
    }
    // An unresolvable value type makes a constructor without payload.
    vt->add_constructor(name, sd_factory::t_get(value_type), tag_offset, tag_value, value_offset);
    return 0;
}

// No hook of its own, so that it can serve as a validity test.
int sdt_get_class(long type)
{
    sd_type_ptr t = sd_factory::t_get(type);
    return t ? t->klass() : -1;
}

unsigned long sdt_get_size(long type)
{
    sd_type_ptr t = sd_factory::t_get(type);
    if (!t) {
        sd_breakpoint();
        return 0;
    }
    return t->mem_size();
}

char const* sdt_get_name(long type)
{
    sd_type_ptr t = sd_factory::t_get(type);
    if (!t) {
        sd_breakpoint();
        return nullptr;
    }
    return t->name().c_str();
}

unsigned long sdt_get_n_all_types(long file)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return 0;
    }
    return sd_predefined_types::all_.size() + f->user_types().size();
}

int sdt_get_all_types(long file, long* types)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return -1;
    }
    for (auto const& t : sd_predefined_types::all_)
        *types++ = t->id();
    for (auto const& entry : f->user_types())
        *types++ = entry.second->id();
    return 0;
}

long sdt_array_get_base_type(long type)
{
    auto at = t_get_as<sd_array_type>(type);
    if (!at) {
        sd_breakpoint();
        return -1;
    }
    return at->base_type->id();
}

unsigned long sdt_array_get_n_dims(long type)
{
    auto at = t_get_as<sd_array_type>(type);
    if (!at) {
        sd_breakpoint();
        return 0;
    }
    return at->dims.size();
}

int sdt_array_get_dims(long type, unsigned long* dims)
{
    auto at = t_get_as<sd_array_type>(type);
    if (!at) {
        sd_breakpoint();
        return -1;
    }
    if (!at->dims.empty())
        std::memcpy(dims, at->dims.data(), at->dims.size() * sizeof(unsigned long));
    return 0;
}

long sdt_enum_get_base_type(long type)
{
    auto et = t_get_as<sd_enum_type>(type);
    if (!et) {
        sd_breakpoint();
        return -1;
    }
    return et->base_type->id();
}

unsigned long sdt_enum_get_n_values(long type)
{
    auto et = t_get_as<sd_enum_type>(type);
    if (!et) {
        sd_breakpoint();
        return 0;
    }
    return et->values.size();
}

unsigned long sdt_struct_get_n_fields(long type)
{
    auto st = t_get_as<sd_struct_type>(type);
    if (!st) {
        sd_breakpoint();
        return 0;
    }
    return st->fields.size();
}

unsigned long sdt_variant_get_n_constructors(long type)
{
    auto vt = t_get_as<sd_variant_type>(type);
    if (!vt) {
        sd_breakpoint();
        return 0;
    }
    return vt->constructors.size();
}

bool sdt_imported_is_variable_size(long type)
{
    auto it = t_get_as<sd_imported_type>(type);
    if (!it) {
        sd_breakpoint();
        return false;
    }
    return it->is_variable_size;
}

// The texts below point into field, enumerator and constructor objects,
// which their type keeps alive after the local reference is dropped.
char const* sdt_struct_get_field_name(long type, unsigned long index)
{
    auto field = sdt_priv_get_struct_field(type, index);
    if (!field) {
        sd_breakpoint();
        return nullptr;
    }
    return field->name.c_str();
}

unsigned long sdt_struct_get_field_offset(long type, unsigned long index)
{
    auto field = sdt_priv_get_struct_field(type, index);
    if (!field) {
        sd_breakpoint();
        return 0;
    }
    return field->offset;
}

long sdt_struct_get_field_type(long type, unsigned long index)
{
    auto field = sdt_priv_get_struct_field(type, index);
    // A field added with an unknown type has none to name.
    if (!field || !field->type) {
        sd_breakpoint();
        return -1;
    }
    return field->type->id();
}

char const* sdt_enum_get_value_name(long type, unsigned long index)
{
    auto value = sdt_priv_get_enum_value(type, index);
    if (!value) {
        sd_breakpoint();
        return nullptr;
    }
    return value->name.c_str();
}

int sdt_enum_get_value_value(long type, unsigned long index, void* value)
{
    auto enumerator = sdt_priv_get_enum_value(type, index);
    if (!enumerator) {
        sd_breakpoint();
        return -1;
    }
    enumerator->value(value);
    return 0;
}

char const* sdt_variant_get_constructor_name(long type, unsigned long index)
{
    auto c = sdt_priv_get_variant_constructor(type, index);
    if (!c) {
        sd_breakpoint();
        return nullptr;
    }
    return c->name.c_str();
}

unsigned long sdt_variant_get_constructor_tag_offset(long type, unsigned long index)
{
    auto c = sdt_priv_get_variant_constructor(type, index);
    if (!c) {
        sd_breakpoint();
        return 0;
    }
    return c->tag_offset;
}

int sdt_variant_get_constructor_tag_value(long type, unsigned long index)
{
    auto c = sdt_priv_get_variant_constructor(type, index);
    if (!c) {
        sd_breakpoint();
        return 0;
    }
    return c->tag_value;
}

unsigned long sdt_variant_get_constructor_value_offset(long type, unsigned long index)
{
    auto c = sdt_priv_get_variant_constructor(type, index);
    if (!c) {
        sd_breakpoint();
        return 0;
    }
    return c->value_offset;
}

long sdt_variant_get_constructor_value_type(long type, unsigned long index)
{
    auto c = sdt_priv_get_variant_constructor(type, index);
    // A constructor without payload fails here although it exists.
    if (!c || !c->value_type) {
        sd_breakpoint();
        return -1;
    }
    return c->value_type->id();
}

// ---- Values ---------------------------------------------------------------

sdd_value* sdd_value_create_none(void)
{
    return handle(new sd_none_value());
}

sdd_value* sdd_value_create_predef_char8(unsigned long v)
{
    return handle(new sd_predefined_char8_value(static_cast<unsigned char>(v)));
}

sdd_value* sdd_value_create_predef_char16(unsigned long v)
{
    return handle(new sd_predefined_char16_value(static_cast<unsigned short>(v)));
}

sdd_value* sdd_value_create_predef_char32(unsigned long v)
{
    return handle(new sd_predefined_char32_value(static_cast<unsigned int>(v)));
}

// The byte is kept as it is: 2 stays 2, 256 becomes 0.
sdd_value* sdd_value_create_predef_bool(unsigned long v)
{
    return handle(new sd_predefined_bool_value(static_cast<unsigned char>(v)));
}

sdd_value* sdd_value_create_predef_uint8(unsigned long v)
{
    return handle(new sd_predefined_uint8_value(static_cast<unsigned char>(v)));
}

sdd_value* sdd_value_create_predef_uint16(unsigned long v)
{
    return handle(new sd_predefined_uint16_value(static_cast<unsigned short>(v)));
}

sdd_value* sdd_value_create_predef_uint32(unsigned long v)
{
    return handle(new sd_predefined_uint32_value(static_cast<unsigned int>(v)));
}

sdd_value* sdd_value_create_predef_uint64(unsigned long v)
{
    return handle(new sd_predefined_uint64_value(v));
}

sdd_value* sdd_value_create_predef_int8(long v)
{
    return handle(new sd_predefined_int8_value(static_cast<signed char>(v)));
}

sdd_value* sdd_value_create_predef_int16(long v)
{
    return handle(new sd_predefined_int16_value(static_cast<short>(v)));
}

sdd_value* sdd_value_create_predef_int32(long v)
{
    return handle(new sd_predefined_int32_value(static_cast<int>(v)));
}

sdd_value* sdd_value_create_predef_int64(long v)
{
    return handle(new sd_predefined_int64_value(v));
}

sdd_value* sdd_value_create_predef_float32(float v)
{
    return handle(new sd_predefined_float32_value(v));
}

sdd_value* sdd_value_create_predef_float64(double v)
{
    return handle(new sd_predefined_float64_value(v));
}

sdd_value* sdd_value_create_list(unsigned long count, sdd_value** values)
{
    std::vector<sd_value*> children;
    // A count no allocation can hold is an allocation failure, as for any
    // other exhausted allocator, not the vector's length error.
    if (count > children.max_size())
        throw std::bad_array_new_length();
    if (count != 0) {
        sd_value** first = reinterpret_cast<sd_value**>(values);
        children.assign(first, first + count);
    }
    return handle(new sd_list_values(std::move(children)));
}

sdd_value* sdd_value_create_enum(char const* name)
{
    return handle(new sd_enum_value(name));
}

// The variant does not take `value` over: its caller closes it.
sdd_value* sdd_value_create_variant(char const* name, sdd_value* value)
{
    return handle(new sd_variant_value(name, obj(value)));
}

sdd_value* sdd_value_create_imported(unsigned long size, void const* bytes)
{
    std::vector<unsigned char> copy;
    if (size != 0) {
        auto first = static_cast<unsigned char const*>(bytes);
        copy.assign(first, first + size);
    }
    return handle(new sd_imported_value(std::move(copy)));
}

void sdd_value_close(sdd_value* value)
{
    delete obj(value);
}

// Null is the only refusal, and it is silent: there is no wrong class.
int sdd_value_get_class(sdd_value* value)
{
    return value ? obj(value)->klass() : -1;
}

long sdd_value_get_predef_type_id(sdd_value* value)
{
    auto p = dynamic_cast<sd_predefined_value*>(obj(value));
    if (!p) {
        sd_breakpoint();
        return -1;
    }
    return static_cast<long>(p->type_iid());
}

int sdd_value_get_predef_raw(sdd_value* value, void* out)
{
    auto p = dynamic_cast<sd_predefined_value*>(obj(value));
    if (!p) {
        sd_breakpoint();
        return -1;
    }
    // With no type to check against, a scalar writes its own width.
    sd_buffer buffer;
    if (p->to_bytes(buffer, nullptr, nullptr) != 0) {
        sd_breakpoint();
        return -1;
    }
    std::memcpy(out, buffer.data(), buffer.size());
    return 0;
}

// These promise a width by their names and keep none of it: each writes the
// value's own width, and the caller learns it from the type id.
int sdd_value_get_predef_uint8(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_uint16(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_uint32(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_uint64(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_int8(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_int16(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_int32(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_int64(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_float32(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }
int sdd_value_get_predef_float64(sdd_value* value, void* out) { return sdd_value_get_predef_raw(value, out); }

char const* sdd_value_get_enum_name(sdd_value* value)
{
    auto e = dynamic_cast<sd_enum_value*>(obj(value));
    if (!e) {
        sd_breakpoint();
        return nullptr;
    }
    return e->name.c_str();
}

sdd_value* sdd_value_get_enum_value(sdd_value* value)
{
    auto e = dynamic_cast<sd_enum_value*>(obj(value));
    if (!e) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(e->predefined_value.get());
}

unsigned long sdd_value_get_list_n_values(sdd_value* value)
{
    auto list = dynamic_cast<sd_list_values*>(obj(value));
    if (!list) {
        sd_breakpoint();
        return 0;
    }
    return list->values.size();
}

sdd_value* sdd_value_get_list_value_at(sdd_value* value, unsigned long index)
{
    auto list = dynamic_cast<sd_list_values*>(obj(value));
    if (!list || index >= list->values.size()) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(list->values[index]);
}

char const* sdd_value_get_variant_name(sdd_value* value)
{
    auto v = dynamic_cast<sd_variant_value*>(obj(value));
    if (!v) {
        sd_breakpoint();
        return nullptr;
    }
    return v->name.c_str();
}

sdd_value* sdd_value_get_variant_value(sdd_value* value)
{
    auto v = dynamic_cast<sd_variant_value*>(obj(value));
    if (!v) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(v->value);
}

unsigned long sdd_value_get_imported_size(sdd_value* value)
{
    auto imp = dynamic_cast<sd_imported_value*>(obj(value));
    if (!imp) {
        sd_breakpoint();
        return 0;
    }
    return imp->bytes.size();
}

int sdd_value_get_imported_value(sdd_value* value, void* out)
{
    auto imp = dynamic_cast<sd_imported_value*>(obj(value));
    if (!imp) {
        sd_breakpoint();
        return -1;
    }
    if (!imp->bytes.empty())
        std::memcpy(out, imp->bytes.data(), imp->bytes.size());
    return 0;
}

// ---- Streams --------------------------------------------------------------

int sdd_append_raw_value(long element, void const* raw)
{
    if (is_null_element(element) || !element_at(element)->type || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    return e->file->append_raw_value(e, raw);
}

int sdd_append_raw_values(long element, unsigned long count, void const* data,
                          unsigned char const* is_none)
{
    if (is_null_element(element) || !element_at(element)->type || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    return e->file->append_raw_values(e, count, data, is_none);
}

int sdd_append_value(long element, sdd_value* value)
{
    if (is_null_element(element) || !element_at(element)->type) {
        sd_breakpoint();
        return -1;
    }
    sd_buffer image;
    if (encode_sample(obj(value), element_at(element)->type.get(), image) != 0) {
        sd_breakpoint();
        return -1;
    }
    return sdd_append_raw_value(element, image.data());
}

int sdd_append_sequence(long element, sdd_sequence* sequence)
{
    if (is_null_element(element) || !element_at(element)->type || !element_at(element)->file) {
        sd_breakpoint();
        return -1;
    }
    sd_element* e = element_at(element);
    // The file takes the copy over, so the caller keeps its own sequence.
    sd_sequence* copy = obj(sequence)->clone();
    int result = e->file->append_sequence(e, copy);
    // A type mismatch is the one refusal that leaves the copy with us; a
    // failed flush has already taken it into the tail block.
    if (result != 0 && copy->type && copy->type->id() != e->type->id())
        delete copy;
    return result;
}

sdd_value_iter* sdd_value_iter_create(long element, long type)
{
    if (is_null_element(element) || !element_at(element)->type || !element_at(element)->file) {
        sd_breakpoint();
        return nullptr;
    }
    sd_element* e = element_at(element);
    // An unresolvable type means the element's own type as memory type.
    return handle(e->file->create_value_iterator(e, sd_factory::t_get(type)));
}

sdd_value_iter* sdd_value_iter_create_part(long file, char const* path, long mem_type)
{
    auto f = sd_factory::f_get(file);
    if (!f) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(f->create_value_iterator(path, sd_factory::t_get(mem_type)));
}

long sdd_value_iter_get_file_type(sdd_value_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    sd_type_ptr const& t = obj(iter)->file_type();
    return t ? t->id() : -1;
}

long sdd_value_iter_get_mem_type(sdd_value_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    sd_type_ptr const& t = obj(iter)->mem_type();
    return t ? t->id() : -1;
}

int sdd_value_iter_seek(sdd_value_iter* iter, unsigned long count)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->seek(count);
}

int sdd_value_iter_seek_to(sdd_value_iter* iter, unsigned long index)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->seek_to(index);
}

int sdd_value_iter_get_raw_value(sdd_value_iter* iter, void* dst, unsigned char* is_none,
                                 unsigned char* is_end)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->get_raw_value(dst, is_none, is_end);
}

unsigned long sdd_value_iter_get_raw_values(sdd_value_iter* iter, unsigned long count, void* dst,
                                            unsigned char* is_none)
{
    if (!iter) {
        sd_breakpoint();
        return 0;
    }
    return obj(iter)->get_raw_values(count, dst, is_none);
}

sdd_value* sdd_value_iter_get_value(sdd_value_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(obj(iter)->get_value());
}

// A null iterator reports success here, unlike everywhere else in the
// family; callers may depend on it.
int sdd_value_iter_set_raw_value(sdd_value_iter* iter, void const* raw)
{
    if (!iter) {
        sd_breakpoint();
        return 0;
    }
    return obj(iter)->set_raw_value(raw);
}

int sdd_value_iter_set_value(sdd_value_iter* iter, sdd_value* value)
{
    if (!iter || !value) {
        sd_breakpoint();
        return -1;
    }
    sd_buffer image;
    if (encode_sample(obj(value), obj(iter)->file_type().get(), image) != 0) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->set_raw_value(image.data());
}

int sdd_value_iter_clear_values(sdd_value_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->clear_values();
}

int sdd_value_iter_restart(sdd_value_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->restart();
}

void sdd_value_iter_close(sdd_value_iter* iter)
{
    delete obj(iter);
}

sdd_sequence_iter* sdd_sequence_iter_create(long element)
{
    if (is_null_element(element) || !element_at(element)->type || !element_at(element)->file) {
        sd_breakpoint();
        return nullptr;
    }
    sd_element* e = element_at(element);
    return handle(e->file->create_sequence_iterator(e));
}

int sdd_sequence_iter_seek(sdd_sequence_iter* iter, unsigned long count)
{
    if (!iter) {
        sd_breakpoint();
        return -1;
    }
    return obj(iter)->seek(count);
}

sdd_sequence* sdd_sequence_iter_get_sequence(sdd_sequence_iter* iter)
{
    if (!iter) {
        sd_breakpoint();
        return nullptr;
    }
    return handle(obj(iter)->get_sequence());
}

void sdd_sequence_iter_close(sdd_sequence_iter* iter)
{
    delete obj(iter);
}

sdd_sequence* sdd_sequence_create_nones(unsigned long count)
{
    return handle(new sd_none_sequence(count));
}

// The values are encoded back to back with no check of count or repeat
// factor; a type with variable parts does not get its stored layout here.
sdd_sequence* sdd_sequence_create_values(long type, unsigned long count, sdd_value** values,
                                         unsigned long repeat_factor)
{
    sd_type_ptr t = sd_factory::t_get(type);
    if (!t) {
        sd_breakpoint();
        return nullptr;
    }
    sd_buffer data;
    for (unsigned long i = 0; i < count; ++i) {
        if (obj(values[i])->to_bytes(data, t.get(), nullptr) != 0) {
            sd_breakpoint();
            return nullptr;
        }
    }
    return handle(new sd_value_sequence(t, data.data(), data.size(), count, repeat_factor));
}

// Ramps have no implementation and no class code.
sdd_sequence* sdd_sequence_create_ramp(long, unsigned long, sdd_value*, sdd_value*)
{
    return nullptr;
}

void sdd_sequence_close(sdd_sequence* sequence)
{
    delete obj(sequence);
}

int sdd_sequence_get_class(sdd_sequence* sequence)
{
    return obj(sequence)->klass();
}

unsigned long sdd_sequence_get_count(sdd_sequence* sequence)
{
    return obj(sequence)->count;
}

unsigned long sdd_sequence_get_repeat_factor(sdd_sequence* sequence)
{
    return obj(sequence)->repeat_factor;
}

sdd_value* sdd_sequence_get_ramp_first(sdd_sequence*)
{
    return nullptr;
}

sdd_value* sdd_sequence_get_ramp_last(sdd_sequence*)
{
    return nullptr;
}

// One repetition is delivered, whatever the repeat factor. A buffer that
// holds fewer values than the count leaves the ones decoded so far with the
// caller and fails.
int sdd_sequence_get_values_values(sdd_sequence* sequence, sdd_value** values)
{
    auto vs = dynamic_cast<sd_value_sequence*>(obj(sequence));
    if (!vs) {
        sd_breakpoint();
        return -1;
    }
    if (vs->count == 0)
        return 0;
    unsigned long offset = 0;
    unsigned long i = 0;
    while (i < vs->count && offset < vs->values.size()) {
        values[i] = handle(sd_value::from_bytes(vs->type.get(), vs->values, offset, true));
        ++i;
    }
    if (i == vs->count)
        return 0;
    sd_breakpoint();
    return -1;
}

} // extern "C"
