// Path text: the two parsers that split a path into element names and value
// steps, and the lookup that resolves them against a file's element tree
// and the element's type (sd_file::find_element_part).
#include "sd_path.h"

#include "sd_element.h"
#include "sd_file.h"
#include "sd_type.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace orva_sd {

sd_projection::~sd_projection() = default;

std::string sd_array_projection::to_string() const
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "[%lu]", index);
    return buf;
}

std::string sd_struct_projection::to_string() const
{
    return "." + name;
}

sd_projections::~sd_projections()
{
    clear();
}

void sd_projections::clear()
{
    for (sd_projection* p : *this)
        delete p;
    std::list<sd_projection*>::clear();
}

void sd_projections::add_array_projection(unsigned long index)
{
    std::unique_ptr<sd_projection> p(new sd_array_projection(index));
    push_back(p.get());
    p.release();
}

void sd_projections::add_struct_projection(char const* name)
{
    std::unique_ptr<sd_projection> p(new sd_struct_projection(name));
    push_back(p.get());
    p.release();
}

int parse_elements(char const* path, std::list<std::string>& elements, char const** tail)
{
    if (tail)
        *tail = nullptr;
    elements.clear();
    if (*path == '\0')
        return 0;

    // Every "/" ends a component, whatever stands in it: a name with a dot
    // or a bracket is reached by following it with a "/".
    char const* s = path;
    for (char const* slash; (slash = std::strchr(s, '/')) != nullptr;) {
        elements.emplace_back(s, slash);
        s = slash + 1;
        if (*s == '\0')
            return 0;
    }

    // The last component. One that starts with a dot and holds a ")" runs up
    // to the last ")", so that a name of the form ".(a.b)" keeps its dots.
    char const* close = std::strrchr(s, ')');
    if (*s == '.' && close) {
        elements.emplace_back(s, close + 1);
        if (close[1] == '\0')
            return 0;
        if (!tail)
            return -1;
        *tail = close + 1;
        return 0;
    }

    char const* stop = std::strpbrk(s, ".[");
    if (!stop) {
        elements.emplace_back(s);
        return 0;
    }
    if (!tail || stop == s)
        return -1;
    *tail = stop;
    elements.emplace_back(s, stop);
    return 0;
}

int parse_projections(char const* text, sd_projections& projections)
{
    projections.clear();
    char const* p = text;
    while (*p != '\0') {
        if (*p == '.') {
            char const* name = p + 1;
            char const* stop = std::strpbrk(name, ".[");
            if (!stop) {
                // Only the last step may have an empty name.
                projections.add_struct_projection(name);
                return 0;
            }
            if (stop == name)
                return -1;
            projections.add_struct_projection(std::string(name, stop).c_str());
            p = stop;
        } else if (*p == '[') {
            // The index reads as stoull reads it: white space, one sign, and
            // "-" wraps around, so [-1] is the highest index.
            std::string rest(p + 1);
            std::size_t used = 0;
            unsigned long long index;
            try {
                index = std::stoull(rest, &used, 10);
            } catch (std::invalid_argument const&) {
                return -1;
            } catch (std::out_of_range const&) {
                return -1;
            }
            p += 1 + used;
            if (*p != ']')
                return -1;
            projections.add_array_projection(static_cast<unsigned long>(index));
            ++p;
        } else {
            return -1;
        }
    }
    return 0;
}

int parse_path(char const* path, std::list<std::string>& elements, sd_projections& projections)
{
    elements.clear();
    projections.clear();
    char const* tail = nullptr;
    if (parse_elements(path, elements, &tail) != 0)
        return -1;
    // For paths that have projections only: without any, tail is null and is
    // read through. The file's lookups test it between the two parsers.
    return parse_projections(tail, projections);
}

sd_element_ptr sd_file::find_element_part(char const* path, char const** tail,
                                          std::shared_ptr<sd_type>& type, unsigned long& offset,
                                          std::list<variant_tag_info_t>& tags) const
{
    if (tail)
        *tail = nullptr;
    type.reset();
    offset = 0;

    std::list<std::string> names;
    if (parse_elements(path, names, tail) != 0)
        return nullptr;
    sd_projections steps;
    if (tail && *tail && parse_projections(*tail, steps) != 0)
        return nullptr;

    sd_element_list const* level = root_elements();
    if (!level) {
        sd_breakpoint();
        return nullptr;
    }
    if (names.empty())
        return nullptr;

    // First match at each level: siblings that a rename made equal resolve
    // to the earlier one.
    sd_element_ptr element;
    for (std::string const& name : names) {
        element.reset();
        for (sd_element_ptr const& e : *level) {
            if (e && e->name == name) {
                element = e;
                break;
            }
        }
        if (!element)
            return nullptr;
        level = &element->children;
    }

    type = element->type;
    for (sd_projection const* step : steps) {
        if (auto index = dynamic_cast<sd_array_projection const*>(step)) {
            // One dimension per step: an index on a 2-D array selects a row,
            // a new array type that only `type` keeps alive.
            auto array = std::dynamic_pointer_cast<sd_array_type>(type);
            if (!array || array->dims.empty() || index->index >= array->dims.front())
                return nullptr;
            if (array->dims.size() == 1)
                type = array->base_type;
            else
                type = std::make_shared<sd_array_type>(
                    -1, array->base_type,
                    std::vector<unsigned long>(array->dims.begin() + 1, array->dims.end()));
            if (!type)
                return nullptr;
            offset += index->index * type->mem_size();
            continue;
        }

        // A field step: a struct field or a variant constructor by the same
        // text, told apart by the class of the type reached so far.
        auto const* field = static_cast<sd_struct_projection const*>(step);
        if (!type)
            return nullptr;
        if (auto st = std::dynamic_pointer_cast<sd_struct_type>(type)) {
            auto f = st->find_field(field->name);
            if (!f)
                return nullptr;
            type = f->type;
            offset += f->offset;
        } else if (auto vt = std::dynamic_pointer_cast<sd_variant_type>(type)) {
            auto c = vt->find_constructor(field->name);
            if (!c)
                return nullptr;
            // The tag's position counts from the start of the element's value.
            tags.push_back(variant_tag_info_t{offset + c->tag_offset, c->tag_value});
            type = c->value_type;
            offset += c->value_offset;
        } else {
            return nullptr;
        }
    }
    return element;
}

sd_element_ptr sd_file::find_element(char const* path) const
{
    char const* tail = nullptr;
    std::shared_ptr<sd_type> type;
    unsigned long offset = 0;
    std::list<variant_tag_info_t> tags;
    sd_element_ptr element = find_element_part(path, &tail, type, offset, tags);
    // A part of a value isn't an element.
    if (tail)
        return nullptr;
    return element;
}

} // namespace orva_sd
