// The named nodes of a file's tree and the memory form of their records.
// The store that keeps the tree and the element chain in step is in
// sd_stdio_file.cpp.
#ifndef ORVA_SD_ELEMENT_H
#define ORVA_SD_ELEMENT_H

#include "orva_sd.h"
#include "sd_buffer.h"
#include "sd_file.h"

#include <memory>
#include <string>
#include <vector>

namespace orva_sd {

class sd_type;
class sd_data_block;

class sd_element {
public:
    sd_element(int iid, std::string name, sde_tag_kind kind, std::shared_ptr<sd_type> type,
               sd_element_ptr parent, sd_file* file);
    virtual ~sd_element();

    // First child in list order with exactly this name, or empty.
    sd_element_ptr find_child(std::string const& name) const;
    // Removes the first child entry that holds this very object.
    void remove_child(sd_element const* element);
    // "[iid] KIND name: t:[type iid]", children below, four blanks deeper.
    std::string to_string(std::string const& indent) const;

    int iid;
    std::string name;
    std::shared_ptr<sd_type> type;
    sde_tag_kind kind;
    sd_element_ptr parent;
    sd_file* file;
    sd_element_list children;
};

// The word of each kind, as the dump shows it; null above 19.
char const* sde_tag_kind_word(int kind);

// Element record layout (n is the name's length):
//   0 frame (block_size, prev, next)
//  20 i64 first_data_block_pos
//  28 i64 last_data_block_pos
//  36 i32 iid
//  40 u32 n, then n name bytes
//  44+n u8 kind, 45+n i32 type iid, 49+n i32 parent iid
constexpr unsigned long SD_ELEMENT_FIRST_DATA_OFFSET = 20;
constexpr unsigned long SD_ELEMENT_LAST_DATA_OFFSET = 28;
constexpr unsigned long SD_ELEMENT_IID_OFFSET = 36;
constexpr unsigned long SD_ELEMENT_NAME_OFFSET = 40;
constexpr unsigned long SD_ELEMENT_FIXED_SIZE = 53;

class sd_element_block : public sd_block {
public:
    // Creates the element's tail block, with all positions -1.
    sd_element_block(sd_element_ptr element, long pos, long prev, long next,
                     long first_data_block_pos, long last_data_block_pos);
    ~sd_element_block();

    sd_element_ptr element;
    long first_data_block_pos;
    long last_data_block_pos;
    std::shared_ptr<sd_data_block> data_block; // the tail block
};

// Appends the element record to an empty buffer and patches its size in.
void sd_serialize_element(sd_element_block const* block, sd_buffer& buffer);

} // namespace orva_sd

#endif
