// The type system: the abstract sd_type, the fourteen predefined scalar
// kinds, the composite classes that describe a caller's memory layout, and
// the type records through which user types reach the file.
#ifndef ORVA_SD_TYPE_H
#define ORVA_SD_TYPE_H

#include "sd_buffer.h"
#include "sd_file.h"

#include <list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace orva_sd {

class sd_imported_type;

// A non-owning reference to a callable; visiting the parts of a type on the
// append path must not allocate, which std::function would for a capturing
// lambda.
template <class Sig>
class sd_function_ref;

template <class R, class... Args>
class sd_function_ref<R(Args...)> {
public:
    template <class F, class = typename std::enable_if<
                           !std::is_same<typename std::decay<F>::type, sd_function_ref>::value>::type>
    sd_function_ref(F&& f) // NOLINT: implicit on purpose, like std::function
        : obj_(const_cast<void*>(static_cast<void const*>(&f))),
          call_([](void* o, Args... a) -> R {
              return (*static_cast<typename std::remove_reference<F>::type*>(o))(
                  std::forward<Args>(a)...);
          })
    {
    }
    R operator()(Args... a) const { return call_(obj_, std::forward<Args>(a)...); }

private:
    void* obj_;
    R (*call_)(void*, Args...);
};

using sd_vsize_part_fn = sd_function_ref<void(unsigned long, sd_imported_type const*)>;

class sd_type {
public:
    explicit sd_type(int iid) : m_iid(iid) {}
    sd_type(sd_type const&) = delete;
    sd_type& operator=(sd_type const&) = delete;
    virtual ~sd_type();

    virtual std::string to_string() const = 0;
    virtual int iid() const { return m_iid; }
    virtual void set_iid(int iid) { m_iid = iid; }
    virtual std::string const& name() const { return m_name; }
    virtual void set_name(char const* name);
    // Handle of the flat interface: the object's address.
    virtual long id() const { return reinterpret_cast<long>(this); }
    virtual unsigned long mem_size() const = 0;
    virtual int klass() const = 0;
    // Calls fn(offset of part, part type) for each imported part of a value
    // whose block starts at `offset`. The base version visits nothing.
    virtual void iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const;

private:
    int m_iid;
    std::string m_name;
};

using sd_type_ptr = std::shared_ptr<sd_type>;

// Class numbers; stored in type records, so part of the format.
enum : int {
    SD_CLASS_PREDEFINED = 0,
    SD_CLASS_STRUCT = 1,
    SD_CLASS_ARRAY = 2,
    SD_CLASS_ENUM = 3,
    SD_CLASS_VARIANT = 4,
    SD_CLASS_IMPORTED = 5,
};

// Stored in one byte; the numbers stand in records as iids.
enum sd_predefined_type_kind : signed char {
    SD_KIND_CHAR8 = 0,
    SD_KIND_CHAR16 = 1,
    SD_KIND_CHAR32 = 2,
    SD_KIND_BOOL = 3,
    SD_KIND_INT8 = 4,
    SD_KIND_INT16 = 5,
    SD_KIND_INT32 = 6,
    SD_KIND_INT64 = 7,
    SD_KIND_UINT8 = 8,
    SD_KIND_UINT16 = 9,
    SD_KIND_UINT32 = 10,
    SD_KIND_UINT64 = 11,
    SD_KIND_FLOAT32 = 12,
    SD_KIND_FLOAT64 = 13,
};

std::string sd_predefined_type_kind_to_string(sd_predefined_type_kind kind);

class sd_predefined_type : public sd_type {
public:
    explicit sd_predefined_type(sd_predefined_type_kind kind);

    std::string to_string() const override;
    // Renaming a scalar ends the process: a bare rethrow with no exception
    // in flight.
    void set_name(char const* name) override;
    long id() const override { return static_cast<long>(kind); }
    unsigned long mem_size() const override;
    int klass() const override { return SD_CLASS_PREDEFINED; }

    bool is_bool() const { return kind == SD_KIND_BOOL; }
    bool is_char() const { return kind >= SD_KIND_CHAR8 && kind <= SD_KIND_CHAR32; }
    bool is_signed_integer() const { return kind >= SD_KIND_INT8 && kind <= SD_KIND_INT64; }
    bool is_unsigned_integer() const { return kind >= SD_KIND_UINT8 && kind <= SD_KIND_UINT64; }
    bool is_integer() const { return is_signed_integer() || is_unsigned_integer(); }
    bool is_float() const { return kind == SD_KIND_FLOAT32 || kind == SD_KIND_FLOAT64; }
    bool is_numeric() const { return is_integer() || is_float(); }

    sd_predefined_type_kind const kind;
};

using sd_predefined_type_ptr = std::shared_ptr<sd_predefined_type>;

extern sd_predefined_type_ptr SD_CHAR8;
extern sd_predefined_type_ptr SD_CHAR16;
extern sd_predefined_type_ptr SD_CHAR32;
extern sd_predefined_type_ptr SD_BOOL;
extern sd_predefined_type_ptr SD_INT8;
extern sd_predefined_type_ptr SD_INT16;
extern sd_predefined_type_ptr SD_INT32;
extern sd_predefined_type_ptr SD_INT64;
extern sd_predefined_type_ptr SD_UINT8;
extern sd_predefined_type_ptr SD_UINT16;
extern sd_predefined_type_ptr SD_UINT32;
extern sd_predefined_type_ptr SD_UINT64;
extern sd_predefined_type_ptr SD_FLOAT32;
extern sd_predefined_type_ptr SD_FLOAT64;

class sd_predefined_types {
public:
    static std::vector<sd_predefined_type_ptr> all_;
    static std::map<long, sd_predefined_type_ptr> all_map_;
    // The shared type of that kind; empty for any number that is not a kind.
    static sd_predefined_type_ptr get(long id);
};

class sd_array_type : public sd_type {
public:
    sd_array_type(int iid, sd_type_ptr base_type, std::vector<unsigned long> dims);

    std::string to_string() const override;
    unsigned long mem_size() const override;
    int klass() const override { return SD_CLASS_ARRAY; }
    void iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const override;

    sd_type_ptr base_type;
    std::vector<unsigned long> dims; // outermost first
};

class sd_struct_type_field {
public:
    sd_struct_type_field(char const* name, sd_type_ptr type, unsigned long offset)
        : name(name), type(std::move(type)), offset(offset) {}

    std::string name;
    sd_type_ptr type;
    unsigned long offset;
};

class sd_struct_type : public sd_type {
public:
    // size -1: the size follows the fields.
    sd_struct_type(int iid, unsigned long size);

    std::string to_string() const override;
    unsigned long mem_size() const override { return mem_bytes; }
    int klass() const override { return SD_CLASS_STRUCT; }
    void iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const override;

    // offset -1 packs the field behind the last one added.
    void add_field(char const* name, sd_type_ptr const& type, unsigned long offset);
    std::shared_ptr<sd_struct_type_field> find_field(std::string const& name) const;

    std::vector<std::shared_ptr<sd_struct_type_field>> fields;
    unsigned long mem_bytes;
    bool fixed_size;
};

class sd_enum_type;

class sd_enum_type_value {
public:
    sd_enum_type_value(sd_enum_type const* type, char const* name, long value)
        : enum_type(type), name(name), m_value(value) {}
    virtual ~sd_enum_type_value();

    long value() const { return m_value; }
    // Writes the enumerator in the representation of the enum's base kind.
    void value(void* out) const;

    sd_enum_type const* enum_type;
    std::string name;

private:
    long m_value;
};

class sd_enum_type : public sd_type {
public:
    sd_enum_type(int iid, sd_predefined_type_ptr base_type);

    std::string to_string() const override;
    unsigned long mem_size() const override { return base_type->mem_size(); }
    int klass() const override { return SD_CLASS_ENUM; }

    void add_value(char const* name, long value);
    // value: one raw value of the base kind, or null for the next number.
    void add_value(char const* name, void const* value);
    // With exact false, falls back to comparing the last ":" component.
    std::shared_ptr<sd_enum_type_value> find_value(std::string const& name, bool exact) const;
    std::shared_ptr<sd_enum_type_value> find_value(long value) const;

    sd_predefined_type_ptr base_type;
    std::vector<std::shared_ptr<sd_enum_type_value>> values;
};

class sd_variant_type_constructor {
public:
    sd_variant_type_constructor(char const* name, unsigned long tag_offset, int tag_value,
                                unsigned long value_offset, sd_type_ptr value_type)
        : name(name), tag_offset(tag_offset), tag_value(tag_value),
          value_offset(value_offset), value_type(std::move(value_type)) {}

    std::string name;
    unsigned long tag_offset;
    int tag_value;
    unsigned long value_offset;
    sd_type_ptr value_type; // empty for a constructor without payload
};

class sd_variant_type : public sd_type {
public:
    sd_variant_type(int iid, unsigned long size);

    std::string to_string() const override;
    unsigned long mem_size() const override { return mem_bytes; }
    int klass() const override { return SD_CLASS_VARIANT; }
    // Deliberately visits nothing: which constructor is active is unknown here.
    void iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const override;

    // -1 defaults: tag offset 0, value offset 4, next tag value.
    void add_constructor(char const* name, sd_type_ptr const& type, unsigned long tag_offset,
                         int tag_value, unsigned long value_offset);
    std::shared_ptr<sd_variant_type_constructor> find_constructor(std::string const& name) const;
    std::shared_ptr<sd_variant_type_constructor> find_constructor(int tag) const;

    std::vector<std::shared_ptr<sd_variant_type_constructor>> constructors;
    unsigned long mem_bytes;
    bool fixed_size;
};

using sd_size_of_fn = unsigned long long (*)(void const*);
using sd_write_to_fn = void (*)(void const*, unsigned char*);

class sd_imported_type : public sd_type {
public:
    sd_imported_type(int iid, unsigned long size);
    sd_imported_type(int iid, unsigned long size, sd_size_of_fn size_of, sd_write_to_fn write_to);

    std::string to_string() const override;
    unsigned long mem_size() const override { return mem_bytes; }
    int klass() const override { return SD_CLASS_IMPORTED; }
    void iter_vsize_parts(sd_vsize_part_fn fn, unsigned long offset) const override;

    unsigned long mem_bytes;
    sd_size_of_fn size_of;
    sd_write_to_fn write_to;
    bool is_variable_size;
};

// Memory form of a type block: the frame plus the type it stores.
class sd_type_block : public sd_block {
public:
    sd_type_block(sd_type_ptr type, long pos, long prev, long next)
        : sd_block(pos, prev, next), type(std::move(type)) {}

    sd_type_ptr type;
};

// Type record layout behind the frame (see sd_type.cpp for the class bodies):
//  20 i32 iid
//  24 u8  klass
//  25 ... class body, then the name as a length-prefixed string (optional
//         to a reader)
constexpr unsigned long SD_TYPE_RECORD_IID_OFFSET = 20;
constexpr unsigned long SD_TYPE_RECORD_KLASS_OFFSET = 24;
constexpr unsigned long SD_TYPE_RECORD_BODY_OFFSET = 25;

// buffer must come in empty; the record's size is stored at position 0.
void sd_serialize_type(sd_type_block const* block, sd_buffer& buffer);
// Empty on any failure; never throws. The type is not registered in `file`.
std::shared_ptr<sd_type_block> sd_deserialize_type(sd_buffer const& buffer, long pos,
                                                   sd_file const* file);

} // namespace orva_sd

#endif
