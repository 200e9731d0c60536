// Conversion from a stored type to a caller's type: the exact scalar
// conversion between any two of the fourteen kinds, and the converter trees
// that sd_converter::build derives once from two types.
#ifndef ORVA_SD_CONVERTER_H
#define ORVA_SD_CONVERTER_H

#include "sd_type.h"

#include <map>
#include <memory>
#include <vector>

namespace orva_sd {

// Reads a scalar of from_kind at `from` and writes exactly the width of
// to_kind at `to`. A kind above 13 on either side writes nothing.
void sd_predefined_convert(void const* from, sd_predefined_type_kind from_kind, void* to,
                           sd_predefined_type_kind to_kind);

// The conversion for a source of the unsigned 8-bit group (char8, bool, uint8).
template <class T>
void sd_predefined_cast(void const* from, void* to, sd_predefined_type_kind to_kind);
template <>
void sd_predefined_cast<unsigned char>(void const* from, void* to, sd_predefined_type_kind to_kind);

class sd_converter {
public:
    sd_converter(sd_type const* from, sd_type const* to) : from_type(from), to_type(to) {}
    sd_converter(sd_converter const&) = delete;
    sd_converter& operator=(sd_converter const&) = delete;
    virtual ~sd_converter();

    virtual void convert(void const* from, void* to) const = 0;

    // Null when the two types are not convertible; an sd_copy_converter when
    // the images agree and a plain copy does.
    static std::shared_ptr<sd_converter> build(sd_type const* from, sd_type const* to);

    sd_type const* from_type; // borrowed
    sd_type const* to_type;   // borrowed
};

using sd_converter_ptr = std::shared_ptr<sd_converter>;

class sd_copy_converter : public sd_converter {
public:
    sd_copy_converter(sd_type const* from, sd_type const* to);
    void convert(void const* from, void* to) const override;

private:
    unsigned long size_;
};

class sd_predefined_converter : public sd_converter {
public:
    sd_predefined_converter(sd_predefined_type const* from, sd_predefined_type const* to);
    void convert(void const* from, void* to) const override;

    sd_predefined_type_kind from_kind;
    sd_predefined_type_kind to_kind;
};

class sd_array_converter : public sd_converter {
public:
    sd_array_converter(sd_array_type const* from, sd_array_type const* to,
                       sd_converter_ptr element_converter);
    void convert(void const* from, void* to) const override;

    sd_converter_ptr element_converter;
};

struct sd_struct_field_converter {
    sd_struct_field_converter(unsigned long from_offset, unsigned long to_offset,
                              sd_converter_ptr converter)
        : from_offset(from_offset), to_offset(to_offset), converter(std::move(converter)) {}

    unsigned long from_offset;
    unsigned long to_offset;
    sd_converter_ptr converter;
};

class sd_struct_converter : public sd_converter {
public:
    sd_struct_converter(sd_struct_type const* from, sd_struct_type const* to);
    void convert(void const* from, void* to) const override;

    std::vector<sd_struct_field_converter> fields;
};

// Enum to enum by enumerator name, or enum to a numeric scalar by value.
class sd_enum_converter : public sd_converter {
public:
    sd_enum_converter(sd_enum_type const* from, sd_enum_type const* to);
    sd_enum_converter(sd_enum_type const* from, sd_predefined_type const* to);
    void convert(void const* from, void* to) const override;
};

class sd_variant_converter : public sd_converter {
public:
    sd_variant_converter(sd_variant_type const* from, sd_variant_type const* to);
    void convert(void const* from, void* to) const override;

    // Keyed by the tag value of the source constructor; only constructors
    // whose payload needs more than a copy have an entry.
    std::map<int, sd_converter_ptr> value_converters;
};

} // namespace orva_sd

#endif
