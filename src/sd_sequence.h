// Sequences: the runs that hold a series. A none sequence is a run of absent
// values (one counter); a value sequence is a group of present values in one
// flat byte buffer, repeated `repeat_factor` times.
#ifndef ORVA_SD_SEQUENCE_H
#define ORVA_SD_SEQUENCE_H

#include "sd_buffer.h"
#include "sd_type.h"

#include <list>
#include <memory>
#include <string>

namespace orva_sd {

class sd_element;

enum : int {
    SD_SEQUENCE_NONE = 1,
    SD_SEQUENCE_VALUE = 2,
};

class sd_sequence {
public:
    sd_sequence(sd_type_ptr type, unsigned long count, unsigned long repeat_factor)
        : type(std::move(type)), count(count), repeat_factor(repeat_factor) {}
    sd_sequence(sd_sequence const&) = delete;
    sd_sequence& operator=(sd_sequence const&) = delete;
    virtual ~sd_sequence();

    virtual std::string to_string() const = 0;
    virtual sd_sequence* clone() const = 0;
    virtual int klass() const = 0;
    virtual unsigned long mem_size() const = 0;

    sd_type_ptr type; // empty in a none sequence
    unsigned long count;
    unsigned long repeat_factor;
};

using sd_sequence_ptr = std::shared_ptr<sd_sequence>;

class sd_none_sequence : public sd_sequence {
public:
    explicit sd_none_sequence(unsigned long count) : sd_sequence(nullptr, count, 1) {}

    std::string to_string() const override;
    sd_sequence* clone() const override;
    int klass() const override { return SD_SEQUENCE_NONE; }
    unsigned long mem_size() const override { return 17; }
};

class sd_value_sequence : public sd_sequence {
public:
    sd_value_sequence(sd_type_ptr type, void const* data, unsigned long size, unsigned long count,
                      unsigned long repeat_factor);

    std::string to_string() const override;
    sd_sequence* clone() const override;
    int klass() const override { return SD_SEQUENCE_VALUE; }
    unsigned long mem_size() const override { return values.size() + 25; }

    // Adds one value (its fixed image, then each variable part as a u64
    // length and the bytes); returns the number of bytes added.
    unsigned long append_raw_value(void const* raw);
    void clear();

    sd_buffer values;
    sd_buffer scratch; // one variable part at a time; never copied
};

// The ordered runs of one data block, with a running estimate of their
// serialised size that steers flushing.
class sd_sequences {
public:
    using list_type = std::list<sd_sequence_ptr>;

    explicit sd_sequences(sd_element const* element) : element(element) {}

    // Takes ownership of seq.
    void append(sd_sequence* seq);
    // raw null: one absent value.
    void append_raw_value(void const* raw);
    void clear(bool keep_first);
    unsigned long mem_size() const { return m_mem_size; }

    list_type list;
    unsigned long m_mem_size = 0;
    sd_element const* element;
    sd_buffer scratch; // where a flush assembles the block
};

} // namespace orva_sd

#endif
