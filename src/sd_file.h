// The abstract data file: what everything above the store sees of a file.
// sd_stdio_file is its one implementation; the lookups here work only
// through the virtual accessors, so they serve any implementation.
#ifndef ORVA_SD_FILE_H
#define ORVA_SD_FILE_H

#include "orva_sd.h"

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orva_sd {

class sd_type;
class sd_element;
class sd_sequence;
class sd_value_iterator;
class sd_sequence_iterator;

using sd_element_ptr = std::shared_ptr<sd_element>;
using sd_element_list = std::vector<sd_element_ptr>;
using sd_element_map = std::map<int, sd_element_ptr>;
using sd_type_map = std::map<int, std::shared_ptr<sd_type>>;

// Memory form of the 20-byte frame that every block starts with:
//   0  u32 block_size   (whole block, these 4 bytes included)
//   4  i64 prev_block_pos
//  12  i64 next_block_pos
// A block not yet in the file has pos -1.
class sd_block {
public:
    sd_block(long pos, long prev, long next)
        : pos(pos), prev_block_pos(prev), next_block_pos(next) {}

    long pos;
    long prev_block_pos;
    long next_block_pos;
};

constexpr unsigned long SD_BLOCK_SIZE_OFFSET = 0;
constexpr unsigned long SD_BLOCK_PREV_OFFSET = 4;
constexpr unsigned long SD_BLOCK_NEXT_OFFSET = 12;
constexpr unsigned long SD_BLOCK_FRAME_SIZE = 20;

// One condition on a value: the 32-bit tag at `offset` from the start of the
// element's value must equal `value` for the part behind it to exist.
struct variant_tag_info_t {
    unsigned long offset;
    int value;
};

class sd_file {
public:
    virtual ~sd_file();

    // The file's handle in the flat interface: its address.
    virtual long id() const;
    virtual unsigned int format_version() const = 0;
    virtual char const* format_version_str() const = 0;
    virtual int dump() const;
    virtual bool is_open() const = 0;
    virtual int close() = 0;
    // Writes all pending samples and flushes the stream.
    virtual int flush() = 0;
    // 0 keeps pending samples until a block is full.
    virtual void set_flush_interval(unsigned long milliseconds) = 0;

    virtual sd_element_ptr create_element(std::string const& name, sde_tag_kind kind,
                                          std::shared_ptr<sd_type> const& type,
                                          sd_element_ptr const& parent) = 0;
    virtual sd_element_list const* root_elements() const = 0;
    virtual sd_element_map const& all_elements() const = 0;
    virtual int set_element_name(sd_element* element, std::string const& name) = 0;
    virtual int set_element_type(sd_element* element, std::shared_ptr<sd_type> const& type) = 0;
    virtual int set_element_kind(sd_element* element, sde_tag_kind kind) = 0;
    virtual int remove_element(sd_element* element) = 0;

    virtual sd_type_map const& user_types() const = 0;

    virtual int append_raw_value(sd_element const* element, void const* raw) = 0;
    // count images of the element type back to back; is_none may be null.
    virtual int append_raw_values(sd_element const* element, unsigned long count, void const* data,
                                  unsigned char const* is_none) = 0;
    virtual sd_value_iterator* create_value_iterator(sd_element const* element,
                                                     std::shared_ptr<sd_type> const& type) const = 0;
    virtual sd_value_iterator* create_value_iterator(char const* path,
                                                     std::shared_ptr<sd_type> const& mem_type) const = 0;
    virtual int append_sequence(sd_element const* element, sd_sequence* sequence) = 0;
    virtual sd_sequence_iterator* create_sequence_iterator(sd_element const* element) const = 0;

    // Element lookups.
    sd_element_ptr find_root_element(std::string const& name) const;
    sd_element_ptr find_element_by_id(long id) const;   // linear: compares addresses
    sd_element_ptr find_element_by_iid(int iid) const;

    // Type lookups.
    std::shared_ptr<sd_type> find_type_by_iid(int iid) const;   // predefined first
    std::shared_ptr<sd_type> find_type(sd_type const* id) const; // by handle, linear

    // Path lookups (sd_path.cpp).
    sd_element_ptr find_element_part(char const* path, char const** tail,
                                     std::shared_ptr<sd_type>& type, unsigned long& offset,
                                     std::list<variant_tag_info_t>& tags) const;
    sd_element_ptr find_element(char const* path) const;

protected:
    // The element of all_elements() whose address is `id`, or empty. The
    // base walks every element; an implementation may index them.
    virtual sd_element_ptr element_at_address(long id) const;
};

} // namespace orva_sd

#endif
