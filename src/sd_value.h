// Value objects: the self-describing, in-memory form of one sample, and their
// byte encoding, which is the caller's raw memory image of the value. Values
// hold no type; whoever encodes or decodes one supplies it.
#ifndef ORVA_SD_VALUE_H
#define ORVA_SD_VALUE_H

#include "sd_buffer.h"
#include "sd_type.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orva_sd {

class sd_imported_value;

// Class numbers as sdd_value_get_class reports them.
enum : int {
    SD_VALUE_NONE = 0,
    SD_VALUE_PREDEFINED = 1,
    SD_VALUE_LIST = 2,
    SD_VALUE_ENUM = 3,
    SD_VALUE_VARIANT = 4,
    SD_VALUE_UNTYPED_CONSTRUCTOR = 5,
    SD_VALUE_IMPORTED = 6,
};

class sd_value {
public:
    sd_value() = default;
    sd_value(sd_value const&) = delete;
    sd_value& operator=(sd_value const&) = delete;
    virtual ~sd_value();

    virtual std::string to_string() const = 0;
    // Encodes the value as `type`. offset null: append at the buffer's end;
    // otherwise write at *offset and move it on. 0 or -1.
    virtual int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const = 0;
    virtual int klass() const = 0;
    // Visits the parts with a variable size, depth first; nothing by default.
    virtual void iter_vsize_parts(std::function<void(sd_imported_value*)> const& visit);

    // Decodes one value at `offset` and moves it past. with_vsize_parts is
    // true for a whole stored sample (image, then its variable parts).
    static sd_value* from_bytes(sd_type const* type, sd_buffer const& buffer,
                                unsigned long& offset, bool with_vsize_parts);
};

class sd_none_value : public sd_value {
public:
    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_NONE; }
};

class sd_predefined_value : public sd_value {
public:
    int klass() const override { return SD_VALUE_PREDEFINED; }
    virtual sd_predefined_value* clone() const = 0;
    virtual int type_iid() const = 0;

    // A new scalar of the concrete class of the type's kind; bytes null gives
    // 0; a kind above 13 gives null.
    static sd_predefined_value* from_bytes(sd_predefined_type const* type, void const* bytes);
    static sd_predefined_value* from_bytes(sd_predefined_type const* type, sd_buffer const& buffer,
                                           unsigned long& offset);
};

template <class T, int Kind>
class sd_predefined_value_base : public sd_predefined_value {
public:
    explicit sd_predefined_value_base(T v) : value(v) {}

    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    // The clone is of this template class, not of a concrete subclass, so a
    // cloned bool or char shows digits.
    sd_predefined_value* clone() const override { return new sd_predefined_value_base(value); }
    int type_iid() const override { return Kind; }

    T value;
};

extern template class sd_predefined_value_base<unsigned char, 0>;
extern template class sd_predefined_value_base<unsigned short, 1>;
extern template class sd_predefined_value_base<unsigned int, 2>;
extern template class sd_predefined_value_base<unsigned char, 3>;
extern template class sd_predefined_value_base<signed char, 4>;
extern template class sd_predefined_value_base<short, 5>;
extern template class sd_predefined_value_base<int, 6>;
extern template class sd_predefined_value_base<long, 7>;
extern template class sd_predefined_value_base<unsigned char, 8>;
extern template class sd_predefined_value_base<unsigned short, 9>;
extern template class sd_predefined_value_base<unsigned int, 10>;
extern template class sd_predefined_value_base<unsigned long, 11>;
extern template class sd_predefined_value_base<float, 12>;
extern template class sd_predefined_value_base<double, 13>;

class sd_predefined_char8_value : public sd_predefined_value_base<unsigned char, 0> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
    std::string to_string() const override;
};
class sd_predefined_char16_value : public sd_predefined_value_base<unsigned short, 1> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
    std::string to_string() const override;
};
class sd_predefined_char32_value : public sd_predefined_value_base<unsigned int, 2> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
    std::string to_string() const override;
};
class sd_predefined_bool_value : public sd_predefined_value_base<unsigned char, 3> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
    std::string to_string() const override;
};
class sd_predefined_int8_value : public sd_predefined_value_base<signed char, 4> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_int16_value : public sd_predefined_value_base<short, 5> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_int32_value : public sd_predefined_value_base<int, 6> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_int64_value : public sd_predefined_value_base<long, 7> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_uint8_value : public sd_predefined_value_base<unsigned char, 8> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_uint16_value : public sd_predefined_value_base<unsigned short, 9> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_uint32_value : public sd_predefined_value_base<unsigned int, 10> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_uint64_value : public sd_predefined_value_base<unsigned long, 11> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_float32_value : public sd_predefined_value_base<float, 12> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};
class sd_predefined_float64_value : public sd_predefined_value_base<double, 13> {
public:
    using sd_predefined_value_base::sd_predefined_value_base;
};

// An array value or a struct value; owns its children.
class sd_list_values : public sd_value {
public:
    explicit sd_list_values(std::vector<sd_value*> values);
    // Decoding constructors: a struct value, and an array value for the
    // given element type and dimensions. Both move `offset` on.
    sd_list_values(sd_struct_type const* type, sd_buffer const& buffer, unsigned long& offset);
    sd_list_values(sd_type const* base_type, std::vector<unsigned long> const& dims,
                   sd_buffer const& buffer, unsigned long& offset);
    ~sd_list_values() override;

    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_LIST; }
    void iter_vsize_parts(std::function<void(sd_imported_value*)> const& visit) override;

    std::vector<sd_value*> values;
};

class sd_enum_value : public sd_value {
public:
    explicit sd_enum_value(char const* name);
    sd_enum_value(sd_enum_type const* type, sd_buffer const& buffer, unsigned long& offset);

    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_ENUM; }

    std::string name;
    long int_value = 0;
    std::shared_ptr<sd_predefined_value> predefined_value;
};

// Does not own `value`: its destructor frees the name only.
class sd_variant_value : public sd_value {
public:
    sd_variant_value(char const* name, sd_value* value);
    sd_variant_value(sd_variant_type const* type, sd_buffer const& buffer, unsigned long& offset);

    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_VARIANT; }

    std::string name;
    sd_value* value = nullptr;
};

// A sample that exists but has no data at all.
class sd_untyped_variant_constructor_value : public sd_value {
public:
    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_UNTYPED_CONSTRUCTOR; }
};

class sd_imported_value : public sd_value {
public:
    explicit sd_imported_value(std::vector<unsigned char> bytes);
    sd_imported_value(sd_imported_type const* type, sd_buffer const& buffer, unsigned long& offset);

    std::string to_string() const override;
    int to_bytes(sd_buffer& buffer, sd_type const* type, unsigned long* offset) const override;
    int klass() const override { return SD_VALUE_IMPORTED; }
    void iter_vsize_parts(std::function<void(sd_imported_value*)> const& visit) override;

    unsigned char is_vsize = 0;
    std::vector<unsigned char> bytes;
};

} // namespace orva_sd

#endif
