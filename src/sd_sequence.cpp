// Sequences: the runs in which a series is kept, in memory and (serialised by
// the data block store) on disk. This is where appended samples open and
// extend runs, and where a flush leaves its residue behind.
#include "sd_sequence.h"

#include "sd_element.h"
#include "sd_value.h"

#include <memory>
#include <stdexcept>

namespace orva_sd {

sd_sequence::~sd_sequence() = default;

// ---- none sequence ---------------------------------------------------------

std::string sd_none_sequence::to_string() const
{
    static char const piece[] = "none | ";
    constexpr unsigned long piece_len = sizeof(piece) - 1;
    std::string s;
    // Reserving up front keeps a long run to one allocation; a count whose
    // text cannot exist is the string's own length error, not a wrapped size.
    if (count > s.max_size() / piece_len)
        throw std::length_error("sd_none_sequence::to_string");
    s.reserve(count * piece_len);
    for (unsigned long i = 0; i < count; ++i)
        s.append(piece, piece_len);
    return s;
}

sd_sequence* sd_none_sequence::clone() const
{
    auto* c = new sd_none_sequence(count);
    c->repeat_factor = repeat_factor;
    return c;
}

// ---- value sequence --------------------------------------------------------

sd_value_sequence::sd_value_sequence(sd_type_ptr type, void const* data, unsigned long size,
                                     unsigned long count, unsigned long repeat_factor)
    : sd_sequence(std::move(type), count, repeat_factor)
{
    if (data && size)
        values.append(data, size);
}

std::string sd_value_sequence::to_string() const
{
    std::string s;
    unsigned long pos = 0;
    while (pos < values.size()) {
        unsigned long before = pos;
        std::unique_ptr<sd_value> v(sd_value::from_bytes(type.get(), values, pos, true));
        if (v)
            s += v->to_string();
        s += " | ";
        // A type that consumes nothing (none at all, an empty struct, an
        // array without dimensions) would otherwise print for ever.
        if (!v || pos == before)
            break;
    }
    return s;
}

sd_sequence* sd_value_sequence::clone() const
{
    // The scratch buffer is working space of the appender and stays behind.
    return new sd_value_sequence(type, values.data(), values.size(), count, repeat_factor);
}

unsigned long sd_value_sequence::append_raw_value(void const* raw)
{
    // A sequence without a type has no image to store; the value still counts.
    unsigned long const n = type ? type->mem_size() : 0;
    unsigned long added = n;
    values.append(raw, n);
    if (type) {
        auto const* base = static_cast<unsigned char const*>(raw);
        type->iter_vsize_parts(
            [&](unsigned long offset, sd_imported_type const* part) {
                if (!part->is_variable_size)
                    return;
                void const* p = base + offset;
                unsigned long long len = part->size_of(p);
                scratch.resize(static_cast<unsigned long>(len));
                part->write_to(p, scratch.data());
                values.append(len);
                values.append(scratch.data(), static_cast<unsigned long>(len));
                added += static_cast<unsigned long>(len) + 8;
            },
            0);
    }
    ++count;
    return added;
}

void sd_value_sequence::clear()
{
    // The capacity stays: the residue of a flush goes on filling this buffer.
    values.clear();
    count = 0;
}

// ---- the runs of a block ---------------------------------------------------

void sd_sequences::append(sd_sequence* seq)
{
    // The shared_ptr constructor destroys seq itself when its control record
    // cannot be allocated; a failing push_back destroys it through the pointer.
    list.push_back(sd_sequence_ptr(seq));
    m_mem_size += seq->mem_size();
}

void sd_sequences::append_raw_value(void const* raw)
{
    sd_sequence* last = list.empty() ? nullptr : list.back().get();
    if (!raw) {
        // Lengthening an absent run costs nothing in the estimate.
        if (last && last->klass() == SD_SEQUENCE_NONE)
            ++last->count;
        else
            append(new sd_none_sequence(1));
        return;
    }
    // A value joins the last group even when that group repeats: the format
    // defines it so, and no guard is wanted here.
    if (last && last->klass() == SD_SEQUENCE_VALUE) {
        m_mem_size += static_cast<sd_value_sequence*>(last)->append_raw_value(raw);
        return;
    }
    auto* seq = new sd_value_sequence(element ? element->type : nullptr, nullptr, 0, 0, 1);
    append(seq);
    m_mem_size += seq->append_raw_value(raw);
}

void sd_sequences::clear(bool keep_first)
{
    m_mem_size = 0;
    if (list.empty())
        return;
    auto first_removed = list.begin();
    if (keep_first && list.front()->klass() == SD_SEQUENCE_VALUE) {
        // The open value run survives a flush as an empty object, repeat
        // factor and all, so that later values continue it; the estimate
        // then reads 25, which makes close write a block even if nothing
        // follows.
        auto* first = static_cast<sd_value_sequence*>(list.front().get());
        first->clear();
        m_mem_size = first->values.size() + 25;
        ++first_removed;
    }
    list.erase(first_removed, list.end());
}

} // namespace orva_sd
