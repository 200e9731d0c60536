// The process-wide registry behind the flat interface: owns the open files
// and the types a caller has created, and turns integer handles back into
// objects. A handle is the object's address (or a kind number for a
// predefined type); there is no handle table.
#ifndef ORVA_SD_FACTORY_H
#define ORVA_SD_FACTORY_H

#include "sd_file.h"
#include "sd_type.h"

#include <pthread.h>

#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace orva_sd {

class sd_factory {
public:
    sd_factory() = delete;

    // Files.
    static std::shared_ptr<sd_file> f_open(char const* path);
    static std::shared_ptr<sd_file> f_open(wchar_t const* path);
    static std::shared_ptr<sd_file> f_create(char const* path);
    static std::shared_ptr<sd_file> f_create(wchar_t const* path);
    static std::shared_ptr<sd_file> f_get(long id);
    static int f_close(long id);
    static std::shared_ptr<sd_file> add_ref(std::shared_ptr<sd_file> const& file);
    static void rem_ref(std::shared_ptr<sd_file> const& file);

    // Elements.
    static sd_element_ptr e_get(long id);
    static std::pair<sd_file*, sd_element_ptr> e_get_and_owner(long id);
    static sd_element_list const* e_get_children(long id);

    // Types.
    static sd_type_ptr t_get(long id);
    static sd_type_ptr t_user_created_get(long id);
    static sd_type_ptr add_ref(sd_type_ptr const& type);
    static int t_close(long id);
    static std::shared_ptr<sd_array_type> t_create_array(sd_type_ptr const& element_type,
                                                         std::vector<unsigned long> const& dims);
    static std::shared_ptr<sd_enum_type> t_create_enum(sd_predefined_type_ptr const& base_type);
    static std::shared_ptr<sd_struct_type> t_create_struct(unsigned long size);
    static std::shared_ptr<sd_variant_type> t_create_variant(unsigned long size);
    static std::shared_ptr<sd_imported_type> t_create_imported(unsigned long size);
    static std::shared_ptr<sd_imported_type> t_create_vsize_imported(unsigned long size,
                                                                     sd_size_of_fn size_of,
                                                                     sd_write_to_fn write_to);
    // Empties both registries.
    static void close();

    // files_ is defined ahead of types_ in one translation unit, so it is
    // constructed first and destroyed last.
    static std::map<long, std::shared_ptr<sd_file>> files_;
    static std::map<long, sd_type_ptr> types_;
    static pthread_mutex_t mutex_;

private:
    template <class T, class... Args>
    static std::shared_ptr<T> make_type(Args&&... args);
};

} // namespace orva_sd

#endif
