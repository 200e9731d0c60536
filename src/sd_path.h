// Path text: element names separated by "/", then optional projections in
// the style of a field access and an index. The parsers here define the
// syntax; resolving a path against a file is sd_file::find_element_part.
#ifndef ORVA_SD_PATH_H
#define ORVA_SD_PATH_H

#include <list>
#include <string>

namespace orva_sd {

class sd_projection {
public:
    virtual ~sd_projection();
    virtual std::string to_string() const = 0;
};

class sd_array_projection : public sd_projection {
public:
    explicit sd_array_projection(unsigned long index) : index(index) {}
    std::string to_string() const override;
    unsigned long index;
};

// A struct field and a variant constructor alike.
class sd_struct_projection : public sd_projection {
public:
    explicit sd_struct_projection(char const* name) : name(name) {}
    explicit sd_struct_projection(std::string name) : name(std::move(name)) {}
    std::string to_string() const override;
    std::string name;
};

// Owns its steps.
class sd_projections : public std::list<sd_projection*> {
public:
    sd_projections() = default;
    sd_projections(sd_projections const&) = delete;
    sd_projections& operator=(sd_projections const&) = delete;
    ~sd_projections();

    void clear();
    void add_array_projection(unsigned long index);
    void add_struct_projection(char const* name);
};

int parse_elements(char const* path, std::list<std::string>& elements, char const** tail);
int parse_projections(char const* text, sd_projections& projections);
int parse_path(char const* path, std::list<std::string>& elements, sd_projections& projections);

} // namespace orva_sd

#endif
