// The registry behind the flat interface: the open files and the types that
// callers created, the handle lookups over them, and the only place where
// files are opened and types are made on a caller's behalf.
#include "sd_factory.h"

#include "sd_element.h"
#include "sd_stdio_file.h"

#include <system_error>

namespace orva_sd {

// The order of these two definitions is what makes process exit drop the
// created types first and the open files last: a file the caller forgot is
// closed, and its pending samples flushed, by the destructor of files_.
std::map<long, std::shared_ptr<sd_file>> sd_factory::files_;
std::map<long, sd_type_ptr> sd_factory::types_;
// Statically initialised so that it works before any constructor has run.
pthread_mutex_t sd_factory::mutex_ = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Holds mutex_ for one registry operation. The lock is never taken while it
// is held, so a plain mutex suffices.
class registry_lock {
public:
    registry_lock()
    {
        int rc = pthread_mutex_lock(&sd_factory::mutex_);
        if (rc != 0)
            throw std::system_error(rc, std::generic_category(), "sd_factory lock");
    }
    ~registry_lock() { pthread_mutex_unlock(&sd_factory::mutex_); }
    registry_lock(registry_lock const&) = delete;
    registry_lock& operator=(registry_lock const&) = delete;
};

// The constructor does the whole open or create and reports failure only by
// leaving the object closed; such an object is dropped here and never
// registered.
template <class Path>
std::shared_ptr<sd_file> open_file(Path const* path, bool create)
{
    std::shared_ptr<sd_file> file = std::make_shared<sd_stdio_file>(path, create);
    if (!file->is_open())
        return nullptr;
    return sd_factory::add_ref(file);
}

} // namespace

std::shared_ptr<sd_file> sd_factory::f_open(char const* path)
{
    return open_file(path, false);
}

std::shared_ptr<sd_file> sd_factory::f_open(wchar_t const* path)
{
    return open_file(path, false);
}

std::shared_ptr<sd_file> sd_factory::f_create(char const* path)
{
    return open_file(path, true);
}

std::shared_ptr<sd_file> sd_factory::f_create(wchar_t const* path)
{
    return open_file(path, true);
}

std::shared_ptr<sd_file> sd_factory::f_get(long id)
{
    registry_lock lock;
    auto it = files_.find(id);
    return it == files_.end() ? nullptr : it->second;
}

int sd_factory::f_close(long id)
{
    std::shared_ptr<sd_file> file = f_get(id);
    if (!file) {
        sd_breakpoint();
        return -1;
    }
    // close runs outside the lock; the handle dies whatever it returns. The
    // local reference keeps the object alive until this call returns.
    int result = file->close();
    rem_ref(file);
    return result;
}

std::shared_ptr<sd_file> sd_factory::add_ref(std::shared_ptr<sd_file> const& file)
{
    registry_lock lock;
    files_[file->id()] = file;
    return file;
}

void sd_factory::rem_ref(std::shared_ptr<sd_file> const& file)
{
    registry_lock lock;
    files_.erase(file->id());
}

sd_element_ptr sd_factory::e_get(long id)
{
    for (auto const& entry : files_)
        if (sd_element_ptr element = entry.second->find_element_by_id(id))
            return element;
    return nullptr;
}

std::pair<sd_file*, sd_element_ptr> sd_factory::e_get_and_owner(long id)
{
    // A file handle names the root of that file: owner set, element empty.
    if (std::shared_ptr<sd_file> file = f_get(id))
        return {file.get(), nullptr};
    if (sd_element_ptr element = e_get(id))
        return {element->file, element};
    return {nullptr, nullptr};
}

sd_element_list const* sd_factory::e_get_children(long id)
{
    if (std::shared_ptr<sd_file> file = f_get(id))
        return file->root_elements();
    // The list belongs to the element, which its file keeps alive.
    if (sd_element_ptr element = e_get(id))
        return &element->children;
    return nullptr;
}

sd_type_ptr sd_factory::t_get(long id)
{
    if (id == -1) {
        sd_breakpoint();
        return nullptr;
    }
    // Kind numbers come first: a predefined type needs no registry at all.
    if (sd_type_ptr type = sd_predefined_types::get(id))
        return type;
    if (sd_type_ptr type = t_user_created_get(id))
        return type;
    // A stored type outlives sdt_close in its file, under the same handle.
    for (auto const& entry : files_)
        if (sd_type_ptr type = entry.second->find_type(reinterpret_cast<sd_type const*>(id)))
            return type;
    return nullptr;
}

sd_type_ptr sd_factory::t_user_created_get(long id)
{
    auto it = types_.find(id);
    return it == types_.end() ? nullptr : it->second;
}

sd_type_ptr sd_factory::add_ref(sd_type_ptr const& type)
{
    registry_lock lock;
    types_[type->id()] = type;
    return type;
}

int sd_factory::t_close(long id)
{
    // Unknown handles, -1 and kind numbers included, are no error.
    types_.erase(id);
    return 0;
}

template <class T, class... Args>
std::shared_ptr<T> sd_factory::make_type(Args&&... args)
{
    // A user type has no iid until a file adopts it.
    std::shared_ptr<T> type = std::make_shared<T>(-1, std::forward<Args>(args)...);
    registry_lock lock;
    types_[type->id()] = type;
    return type;
}

std::shared_ptr<sd_array_type> sd_factory::t_create_array(sd_type_ptr const& element_type,
                                                          std::vector<unsigned long> const& dims)
{
    return make_type<sd_array_type>(element_type, dims);
}

std::shared_ptr<sd_enum_type> sd_factory::t_create_enum(sd_predefined_type_ptr const& base_type)
{
    return make_type<sd_enum_type>(base_type);
}

std::shared_ptr<sd_struct_type> sd_factory::t_create_struct(unsigned long size)
{
    return make_type<sd_struct_type>(size);
}

std::shared_ptr<sd_variant_type> sd_factory::t_create_variant(unsigned long size)
{
    return make_type<sd_variant_type>(size);
}

std::shared_ptr<sd_imported_type> sd_factory::t_create_imported(unsigned long size)
{
    return make_type<sd_imported_type>(size);
}

std::shared_ptr<sd_imported_type> sd_factory::t_create_vsize_imported(unsigned long size,
                                                                      sd_size_of_fn size_of,
                                                                      sd_write_to_fn write_to)
{
    return make_type<sd_imported_type>(size, size_of, write_to);
}

void sd_factory::close()
{
    // Files first, as at exit.
    files_.clear();
    types_.clear();
}

} // namespace orva_sd
