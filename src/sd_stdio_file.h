// The one implementation of sd_file, on a stdio stream: header, lifecycle,
// the block primitives and chains, and the element, type and data block
// stores. Every operation seeks first, so calls may interleave on one thread.
#ifndef ORVA_SD_STDIO_FILE_H
#define ORVA_SD_STDIO_FILE_H

#include "sd_buffer.h"
#include "sd_element.h"
#include "sd_file.h"
#include "sd_sequence.h"
#include "sd_type.h"

#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

namespace orva_sd {

// Header, at position 0, 40 bytes:
//   0 "Q7SD"   4 u32 format version   8 u64 magic_number
//  16 i64 first_type_block_pos  24 i64 first_element_block_pos
//  32 i64 first_free_space_block_pos
constexpr unsigned long SD_HEADER_SIZE = 40;
constexpr unsigned long SD_HEADER_VERSION_OFFSET = 4;
constexpr unsigned long SD_HEADER_MAGIC_NUMBER_OFFSET = 8;
constexpr long SD_HEADER_FIRST_TYPE_OFFSET = 16;
constexpr long SD_HEADER_FIRST_ELEMENT_OFFSET = 24;
constexpr long SD_HEADER_FIRST_FREE_SPACE_OFFSET = 32;
constexpr unsigned long long SD_MAGIC_NUMBER = 0x597DE1906FD89380ULL;
constexpr unsigned int SD_FORMAT_VERSION = 1001000;
constexpr unsigned int SD_FORMAT_VERSION_MIN = 1000000;
constexpr unsigned int SD_FORMAT_VERSION_MAX = 1999999;

// Data block layout behind the frame:
//  20 i32 element iid   24 u32 uncompressed size   28 zlib stream
// Payload: u32 sequence count, then records: tag 1 (none): u64 count;
// tag 2 (values): u64 repeat factor, u64 count, u64 data size, data.
constexpr unsigned long SD_DATA_IID_OFFSET = 20;
constexpr unsigned long SD_DATA_USIZE_OFFSET = 24;
constexpr unsigned long SD_DATA_HEAD_SIZE = 28;
constexpr unsigned long SD_FLUSH_THRESHOLD = 0x100001;

class sd_element_block;

class sd_data_block : public sd_block {
public:
    sd_data_block(sd_element_block* element_block, long pos, long prev, long next);

    sd_element_block* element_block; // not owned
    sd_sequences sequences;
};

class sd_stdio_file : public sd_file {
public:
    sd_stdio_file(char const* path, bool create);
    sd_stdio_file(wchar_t const* path, bool create);
    ~sd_stdio_file() override;

    unsigned int format_version() const override { return m_format_version; }
    char const* format_version_str() const override { return m_format_version_str.c_str(); }
    int dump() const override;
    bool is_open() const override { return stream != nullptr; }
    int close() override;
    int flush() override;
    void set_flush_interval(unsigned long milliseconds) override { flush_interval_ms = milliseconds; }

    sd_element_ptr create_element(std::string const& name, sde_tag_kind kind,
                                  sd_type_ptr const& type, sd_element_ptr const& parent) override;
    sd_element_list const* root_elements() const override { return &m_root_elements; }
    sd_element_map const& all_elements() const override { return m_all_elements; }
    int set_element_name(sd_element* element, std::string const& name) override;
    int set_element_type(sd_element* element, sd_type_ptr const& type) override;
    int set_element_kind(sd_element* element, sde_tag_kind kind) override;
    int remove_element(sd_element* element) override;

    sd_type_map const& user_types() const override { return m_user_types; }

    int append_raw_value(sd_element const* element, void const* raw) override;
    int append_raw_values(sd_element const* element, unsigned long count, void const* data,
                          unsigned char const* is_none) override;
    sd_value_iterator* create_value_iterator(sd_element const* element,
                                             sd_type_ptr const& type) const override;
    sd_value_iterator* create_value_iterator(char const* path,
                                             sd_type_ptr const& mem_type) const override;
    int append_sequence(sd_element const* element, sd_sequence* sequence) override;
    sd_sequence_iterator* create_sequence_iterator(sd_element const* element) const override;

    // Lifecycle.
    int init_create();
    int init_open();
    void set_format_version(unsigned int v);

    // Primitives.
    long seek(long pos) const;
    int read(void* target, unsigned long n) const;
    int write(void const* source, unsigned long n) const;
    int write_at(void const* source, unsigned long n, long pos) const;

    // Blocks and chains.
    int read_block(long pos, sd_buffer& buffer) const;
    long append_block(sd_buffer const& buffer) const;
    int update_header_first_type_block_pos(long value);
    int update_header_first_element_block_pos(long value);
    int update_header_first_free_space_block_pos(long value);
    int update_block_next_block_pos(long pos, long value) const;
    int update_block_next_block_pos(sd_block& block, long value) const;
    int update_block_prev_block_pos(sd_block& block, long value) const;
    int update_block_prev_block_pos(long pos, long value) const; // writes at pos itself
    int update_element_first_data_block_pos(sd_element_block& block, long value) const;
    int update_element_last_data_block_pos(sd_element_block& block, long value) const;

    // Element store.
    int append_element(sd_element_ptr const& element);
    void add_element_block(std::shared_ptr<sd_element_block> const& block);
    int read_elements();
    std::shared_ptr<sd_element_block> find_element_block_by_iid(int iid) const;
    std::shared_ptr<sd_element_block> find_element_block_by_pos(long pos) const;

    // Type store.
    void gather_user_types_to_add(sd_type_ptr const& type, std::list<sd_type_ptr>& list) const;
    int append_type(sd_type_ptr const& type);
    void add_type_block(std::shared_ptr<sd_type_block> const& block);
    int read_types();

    // Data block store.
    int append_data_block(sd_data_block* block) const;
    int update_data_block(sd_data_block* block) const;
    std::shared_ptr<sd_data_block> read_data(long pos) const;

    std::FILE* stream = nullptr;
    unsigned int m_format_version = SD_FORMAT_VERSION;
    std::string m_format_version_str;
    long first_type_block_pos = -1;
    long first_element_block_pos = -1;
    long first_free_space_block_pos = -1;
    int last_iid = 13;
    unsigned long flush_interval_ms = 0;
    sd_element_list m_root_elements;
    sd_element_map m_all_elements;
    std::map<int, std::shared_ptr<sd_element_block>> element_blocks_by_iid;
    std::map<long, std::shared_ptr<sd_element_block>> element_blocks_by_pos;
    sd_type_map m_user_types;
    std::map<long, std::shared_ptr<sd_type_block>> type_blocks_by_pos;

protected:
    sd_element_ptr element_at_address(long id) const override;

private:
    void open_path(char const* path, bool create);

    // Handles are addresses: this index lets the registry resolve an element
    // handle without walking every element of every file.
    std::unordered_map<long, int> iid_by_address;
};

} // namespace orva_sd

#endif
