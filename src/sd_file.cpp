// The abstract file's own code: the element and type lookups that work
// through the virtual accessors, and the dump of a whole file.
#include "sd_file.h"

#include "sd_element.h"
#include "sd_stdio_value_iterator.h"
#include "sd_type.h"
#include "sd_value.h"

#include <iostream>
#include <memory>

namespace orva_sd {

sd_file::~sd_file() = default;

long sd_file::id() const
{
    return reinterpret_cast<long>(this);
}

sd_element_ptr sd_file::find_root_element(std::string const& name) const
{
    sd_element_list const* roots = root_elements();
    if (!roots)
        return nullptr;
    for (auto const& e : *roots)
        if (e->name == name)
            return e;
    return nullptr;
}

sd_element_ptr sd_file::find_element_by_id(long id) const
{
    return element_at_address(id);
}

sd_element_ptr sd_file::element_at_address(long id) const
{
    for (auto const& entry : all_elements())
        if (reinterpret_cast<long>(entry.second.get()) == id)
            return entry.second;
    return nullptr;
}

sd_element_ptr sd_file::find_element_by_iid(int iid) const
{
    auto const& all = all_elements();
    auto it = all.find(iid);
    return it == all.end() ? nullptr : it->second;
}

std::shared_ptr<sd_type> sd_file::find_type_by_iid(int iid) const
{
    if (auto t = sd_predefined_types::get(static_cast<long>(iid)))
        return t;
    auto const& types = user_types();
    auto it = types.find(iid);
    return it == types.end() ? nullptr : it->second;
}

std::shared_ptr<sd_type> sd_file::find_type(sd_type const* id) const
{
    long handle = reinterpret_cast<long>(id);
    for (auto const& entry : user_types())
        if (entry.second->id() == handle)
            return entry.second;
    return nullptr;
}

// A decoded variant does not own its inner value; the dump owns the whole
// tree it decoded, so it frees the payloads before the value itself.
static void free_variant_payloads(sd_value* v)
{
    if (auto* var = dynamic_cast<sd_variant_value*>(v)) {
        if (var->value) {
            free_variant_payloads(var->value);
            delete var->value;
            var->value = nullptr;
        }
    } else if (auto* list = dynamic_cast<sd_list_values*>(v)) {
        for (sd_value* child : list->values)
            if (child)
                free_variant_payloads(child);
    }
}

int sd_file::dump() const
{
    if (!is_open()) {
        sd_breakpoint();
        return -1;
    }
    std::ostream& out = std::cout;
    out << "*** Format version: " << format_version_str() << std::endl;
    out << "*** Predefined types:" << std::endl;
    for (auto const& t : sd_predefined_types::all_)
        out << "[" << t->iid() << "] " << t->to_string() << std::endl;
    out << "*** User types:" << std::endl;
    for (auto const& entry : user_types()) {
        out << "[" << entry.first << "] ";
        if (!entry.second->name().empty())
            out << entry.second->name() << ": ";
        out << entry.second->to_string() << std::endl;
    }
    out << "*** Elements:" << std::endl;
    if (sd_element_list const* roots = root_elements())
        for (auto const& e : *roots)
            out << e->to_string(std::string()) << std::endl;
    out << "*** Data:" << std::endl;
    for (auto const& entry : all_elements()) {
        sd_element const* e = entry.second.get();
        // Reading with the file's own type expands runs into single values.
        std::unique_ptr<sd_value_iterator> it(create_value_iterator(e, e->type));
        if (!it)
            continue;
        out << "[" << e->iid << "] " << e->name << ": ";
        while (sd_value* v = it->get_value()) {
            out << v->to_string() << " | ";
            free_variant_payloads(v);
            delete v;
        }
        out << std::endl;
    }
    return 0;
}

} // namespace orva_sd
