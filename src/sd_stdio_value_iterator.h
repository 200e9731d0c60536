// The value iterator: walks the series of one element value by value, from
// the oldest stored block through the tail block, delivering raw images
// (copied or converted), value objects, or one part of each value.
#ifndef ORVA_SD_STDIO_VALUE_ITERATOR_H
#define ORVA_SD_STDIO_VALUE_ITERATOR_H

#include "sd_converter.h"
#include "sd_file.h"
#include "sd_sequence.h"
#include "sd_type.h"

#include <list>
#include <memory>
#include <set>

namespace orva_sd {

class sd_value;
class sd_stdio_file;
class sd_element_block;
class sd_data_block;

class sd_value_iterator {
public:
    virtual ~sd_value_iterator();
    virtual int restart() = 0;
    virtual int seek(unsigned long count) = 0;
    // Sample `index` of the element: restart, then seek(index).
    virtual int seek_to(unsigned long index) = 0;
    virtual int get_raw_value(void* dst, unsigned char* is_none, unsigned char* is_end) = 0;
    virtual unsigned long get_raw_values(unsigned long count, void* dst, unsigned char* is_none) = 0;
    virtual sd_value* get_value() = 0;
    virtual int set_raw_value(void const* raw) = 0;
    virtual int clear_values() = 0;
    virtual sd_type_ptr const& file_type() const = 0;
    virtual sd_type_ptr const& mem_type() const = 0;
};

class sd_stdio_value_iterator : public sd_value_iterator {
public:
    enum state_t { end_of_data = 0, absent = 1, constructor_only = 2, present = 3 };

    struct current_value_info {
        state_t state;
        sd_buffer const* buffer;
        unsigned long offset;
    };

    // Whole-value iterator: file_type is the element's type.
    sd_stdio_value_iterator(sd_stdio_file const* file, std::shared_ptr<sd_element_block> element_block,
                            sd_type_ptr mem_type, sd_converter_ptr converter);
    // Part iterator.
    sd_stdio_value_iterator(sd_stdio_file const* file, std::shared_ptr<sd_element_block> element_block,
                            sd_type_ptr file_type, sd_type_ptr mem_type, sd_converter_ptr converter,
                            unsigned long part_offset, std::list<variant_tag_info_t> variant_tags);
    ~sd_stdio_value_iterator() override;

    int restart() override;
    int seek(unsigned long count) override;
    int seek_to(unsigned long index) override;
    int get_raw_value(void* dst, unsigned char* is_none, unsigned char* is_end) override;
    unsigned long get_raw_values(unsigned long count, void* dst, unsigned char* is_none) override;
    sd_value* get_value() override;
    int set_raw_value(void const* raw) override;
    int clear_values() override;
    sd_type_ptr const& file_type() const override { return m_file_type; }
    sd_type_ptr const& mem_type() const override { return m_mem_type; }

    current_value_info get_current_value() const;
    int seek_next_sequence();
    int seek_next_data_block();

    // What decoding one stored value of a type does, worked out from the
    // type alone, so that seek can step over values without variable parts
    // by arithmetic instead of building throw-away value objects.
    struct value_shape {
        bool fixed = false;        // no variable part is ever read behind a value
        unsigned long advance = 0; // bytes a decode moves on
        unsigned long reach = 0;   // every read starts, and ends, within this many bytes
    };
    static value_shape analyse(sd_type const* type, bool under_variant);

    sd_stdio_file const* file;
    std::shared_ptr<sd_element_block> element_block;
    sd_type_ptr m_file_type;
    sd_type_ptr m_mem_type;
    sd_converter_ptr converter;
    unsigned long part_offset = 0;
    std::list<variant_tag_info_t> variant_tags;
    std::shared_ptr<sd_data_block> current_block;
    sd_sequences::list_type::iterator current;
    unsigned long repeat_index = 0;
    unsigned long value_index = 0;
    unsigned long byte_offset = 0;

private:
    void init();
    bool at_sequence() const;
    bool exhausted(sd_sequence const& seq) const;
    void enter(std::shared_ptr<sd_data_block> block);
    void enter_stored(long pos);
    value_shape const& element_shape();
    unsigned long skip_fixed(sd_buffer const& buffer, unsigned long& offset, unsigned long max);
    void skip_value(sd_buffer const& buffer, unsigned long& offset);
    void convert_from(sd_buffer const& buffer, unsigned long source, void* dst);

    sd_type_ptr shape_type;          // the element type that `shape` describes
    value_shape shape;
    unsigned long convert_span = 0;  // bytes a conversion may read from one source image
    sd_buffer convert_scratch;       // holds a source image cut short by the buffer's end
    std::set<long> visited;          // stored blocks entered by this walk
};

} // namespace orva_sd

#endif
