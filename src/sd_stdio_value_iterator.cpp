// The value iterator: the forward walk over an element's stored blocks and
// then its tail block, one sample at a time, and the two edits that rewrite
// the block under it (set a value, cut the series).
#include "sd_stdio_value_iterator.h"

#include "orva_sd.h"
#include "sd_element.h"
#include "sd_stdio_file.h"
#include "sd_value.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>

namespace orva_sd {

sd_value_iterator::~sd_value_iterator() = default;

namespace {

// Saturating arithmetic for the type analyses: a size that overflows is of
// no use to the fast paths, and saturation lets them refuse it.
unsigned long sat_add(unsigned long a, unsigned long b)
{
    unsigned long r;
    return __builtin_add_overflow(a, b, &r) ? ULONG_MAX : r;
}

unsigned long sat_mul(unsigned long a, unsigned long b)
{
    unsigned long r;
    return __builtin_mul_overflow(a, b, &r) ? ULONG_MAX : r;
}

// The furthest byte from the start of an image that a converter of this
// type could look at: every interpretation at once, so that a source image
// near the end of a damaged buffer can be copied out whole before converting.
unsigned long type_span(sd_type const* type)
{
    if (!type)
        return 0;
    unsigned long span = type->mem_size();
    if (auto const* st = dynamic_cast<sd_struct_type const*>(type)) {
        for (auto const& f : st->fields)
            span = std::max(span, sat_add(f->offset, type_span(f->type.get())));
    } else if (auto const* at = dynamic_cast<sd_array_type const*>(type)) {
        unsigned long n = 1;
        for (unsigned long d : at->dims)
            n = sat_mul(n, d);
        if (n > 0 && at->base_type) {
            unsigned long e = at->base_type->mem_size();
            span = std::max(span, sat_add(sat_mul(n - 1, e), type_span(at->base_type.get())));
        }
    } else if (auto const* vt = dynamic_cast<sd_variant_type const*>(type)) {
        for (auto const& c : vt->constructors) {
            span = std::max(span, sat_add(c->tag_offset, 4));
            if (c->value_type)
                span = std::max(span, sat_add(c->value_offset, type_span(c->value_type.get())));
        }
    }
    return span;
}

// Appends bytes [from, from + n) of src to dst. A position state left by a
// seek past a sequence's end can point beyond its bytes; what isn't there
// comes out as zeros.
void append_range(sd_buffer& dst, sd_buffer const& src, unsigned long from, unsigned long n)
{
    unsigned long o = dst.size();
    if (from < src.size())
        dst.append(src.data() + from, std::min(n, src.size() - from));
    dst.resize(o + n);
}

} // namespace

// The shape follows sd_value::from_bytes class by class: the reads it makes
// (each range-checked at its first byte) and how far it moves. A variable
// part outside a variant makes the length data-dependent, and so does any
// class the decoder would not know; those are decoded for real.
sd_stdio_value_iterator::value_shape sd_stdio_value_iterator::analyse(sd_type const* type,
                                                                      bool under_variant)
{
    value_shape sh;
    if (!type) {
        // Decodes to an untyped value and touches nothing.
        sh.fixed = true;
        return sh;
    }
    if (dynamic_cast<sd_predefined_type const*>(type)) {
        sh.fixed = true;
        sh.advance = type->mem_size();
        sh.reach = std::max(sh.advance, 1UL);
        return sh;
    }
    if (auto const* st = dynamic_cast<sd_struct_type const*>(type)) {
        sh.fixed = true;
        sh.advance = type->mem_size();
        for (auto const& f : st->fields) {
            value_shape fs = analyse(f->type.get(), under_variant);
            if (!fs.fixed)
                return value_shape();
            if (fs.reach)
                sh.reach = std::max(sh.reach, sat_add(f->offset, fs.reach));
        }
        sh.fixed = sh.reach != ULONG_MAX;
        return sh;
    }
    if (auto const* at = dynamic_cast<sd_array_type const*>(type)) {
        sh.fixed = true;
        // No dimensions decode to an empty list: nothing is read or passed.
        if (at->dims.empty())
            return sh;
        // Innermost level first: each level holds D children of the next.
        value_shape child = analyse(at->base_type.get(), under_variant);
        if (!child.fixed)
            return value_shape();
        for (auto d = at->dims.rbegin(); d != at->dims.rend(); ++d) {
            value_shape level;
            level.fixed = true;
            if (*d > 0) {
                level.advance = sat_mul(*d, child.advance);
                if (child.reach)
                    level.reach = sat_add(sat_mul(*d - 1, child.advance), child.reach);
            }
            child = level;
        }
        if (child.advance == ULONG_MAX || child.reach == ULONG_MAX)
            return value_shape();
        return child;
    }
    if (dynamic_cast<sd_enum_type const*>(type)) {
        sh.fixed = true;
        sh.advance = type->mem_size();
        sh.reach = std::max(sh.advance, 1UL);
        return sh;
    }
    if (auto const* vt = dynamic_cast<sd_variant_type const*>(type)) {
        sh.fixed = true;
        sh.advance = type->mem_size();
        // Which constructor matches depends on the data: take them all.
        for (auto const& c : vt->constructors) {
            sh.reach = std::max(sh.reach, sat_add(c->tag_offset, 4));
            if (!c->value_type)
                continue;
            value_shape cs = analyse(c->value_type.get(), true);
            if (!cs.fixed)
                return value_shape();
            if (cs.reach)
                sh.reach = std::max(sh.reach, sat_add(c->value_offset, cs.reach));
        }
        sh.fixed = sh.reach != ULONG_MAX;
        return sh;
    }
    if (auto const* it = dynamic_cast<sd_imported_type const*>(type)) {
        // Variable parts below a variant are never stored or read; the fixed
        // bytes are counted as a read either way, which is only cautious.
        if (it->is_variable_size && !under_variant)
            return sh;
        sh.fixed = true;
        sh.advance = type->mem_size();
        sh.reach = std::max(sh.advance, 1UL);
        return sh;
    }
    return sh;
}

// ---- construction ----------------------------------------------------------

sd_stdio_value_iterator::sd_stdio_value_iterator(sd_stdio_file const* file,
                                                 std::shared_ptr<sd_element_block> element_block,
                                                 sd_type_ptr mem_type, sd_converter_ptr converter)
    : file(file), element_block(std::move(element_block)), m_mem_type(std::move(mem_type)),
      converter(std::move(converter))
{
    m_file_type = this->element_block->element->type;
    init();
}

sd_stdio_value_iterator::sd_stdio_value_iterator(sd_stdio_file const* file,
                                                 std::shared_ptr<sd_element_block> element_block,
                                                 sd_type_ptr file_type, sd_type_ptr mem_type,
                                                 sd_converter_ptr converter, unsigned long part_offset,
                                                 std::list<variant_tag_info_t> variant_tags)
    : file(file), element_block(std::move(element_block)), m_file_type(std::move(file_type)),
      m_mem_type(std::move(mem_type)), converter(std::move(converter)), part_offset(part_offset),
      variant_tags(std::move(variant_tags))
{
    init();
}

sd_stdio_value_iterator::~sd_stdio_value_iterator() = default;

void sd_stdio_value_iterator::init()
{
    shape_type = element_block->element->type;
    shape = analyse(shape_type.get(), false);
    if (converter)
        convert_span = type_span(m_file_type.get());
    // An element without data still gets an iterator, standing at the end.
    seek_next_data_block();
}

// ---- position --------------------------------------------------------------

inline bool sd_stdio_value_iterator::at_sequence() const
{
    return current_block && current != current_block->sequences.list.end() && *current;
}

inline bool sd_stdio_value_iterator::exhausted(sd_sequence const& seq) const
{
    return repeat_index >= seq.repeat_factor && value_index >= seq.count;
}

void sd_stdio_value_iterator::enter(std::shared_ptr<sd_data_block> block)
{
    current_block = std::move(block);
    if (current_block)
        current = current_block->sequences.list.begin();
    repeat_index = 0;
    value_index = 0;
    byte_offset = 0;
}

void sd_stdio_value_iterator::enter_stored(long pos)
{
    // A chain that comes back to a block of this walk is damaged; like an
    // unreadable block it ends the stored part of the walk, instead of
    // going round for ever.
    if (visited.insert(pos).second)
        enter(file->read_data(pos));
    else
        enter(nullptr);
}

sd_stdio_value_iterator::current_value_info sd_stdio_value_iterator::get_current_value() const
{
    current_value_info info{end_of_data, nullptr, 0};
    if (!at_sequence())
        return info;
    sd_sequence const* seq = current->get();
    if (exhausted(*seq))
        return info;
    int const klass = seq->klass();
    if (klass == SD_SEQUENCE_NONE) {
        info.state = absent;
        return info;
    }
    if (klass != SD_SEQUENCE_VALUE)
        return info;
    sd_buffer const& b = static_cast<sd_value_sequence const*>(seq)->values;
    b.at(byte_offset); // the range check of the value's own position
    for (auto const& tag : variant_tags) {
        // A tag that lies beyond the stored bytes reads as zeros.
        int stored = 0;
        unsigned long pos = byte_offset + tag.offset;
        if (pos >= byte_offset && pos < b.size())
            stored = b.read<int>(pos);
        if (stored != tag.value) {
            info.state = absent;
            return info;
        }
    }
    info.state = m_file_type ? present : constructor_only;
    info.buffer = &b;
    info.offset = byte_offset;
    return info;
}

int sd_stdio_value_iterator::seek_next_sequence()
{
    if (current_block && current != current_block->sequences.list.end())
        ++current;
    repeat_index = 0;
    value_index = 0;
    byte_offset = 0;
    if (at_sequence() && ((*current)->repeat_factor != 0 || (*current)->count != 0))
        return 0;
    if (seek_next_data_block() == 0)
        return 0;
    sd_breakpoint();
    return -1;
}

int sd_stdio_value_iterator::seek_next_data_block()
{
    if (!current_block) {
        visited.clear();
        long first = element_block->first_data_block_pos;
        if (first != -1)
            enter_stored(first);
        else
            enter(element_block->data_block);
    }
    bool found = false;
    while (current_block) {
        if (at_sequence() && !exhausted(**current)) {
            found = true;
            break;
        }
        if (current_block->next_block_pos == -1)
            break;
        enter_stored(current_block->next_block_pos);
    }
    // The tail block has no link in the file: it is the last stop of every
    // walk, also when a stored block could not be read.
    if (!found && !(current_block && current_block == element_block->data_block)) {
        if (!element_block->data_block) {
            sd_breakpoint();
            return -1;
        }
        enter(element_block->data_block);
    }
    if (at_sequence() && !exhausted(**current))
        return 0;
    sd_breakpoint();
    return -1;
}

int sd_stdio_value_iterator::restart()
{
    current_block.reset();
    current = sd_sequences::list_type::iterator();
    repeat_index = 0;
    value_index = 0;
    byte_offset = 0;
    return seek_next_data_block();
}

// ---- stepping over values --------------------------------------------------

inline sd_stdio_value_iterator::value_shape const& sd_stdio_value_iterator::element_shape()
{
    // The element may have been given another type since the last look.
    sd_type_ptr const& type = element_block->element->type;
    if (type != shape_type) {
        shape_type = type;
        shape = analyse(type.get(), false);
    }
    return shape;
}

// Steps over up to `max` values of fixed shape in one go, as many as lie
// wholly inside the buffer; 0 when the next one has to be decoded for real
// (variable parts, or a value that a decode might find cut short).
inline unsigned long sd_stdio_value_iterator::skip_fixed(sd_buffer const& buffer, unsigned long& offset,
                                                  unsigned long max)
{
    value_shape const& sh = element_shape();
    unsigned long size = buffer.size();
    if (!sh.fixed || offset >= size)
        return 0;
    unsigned long room = size - offset;
    unsigned long need = std::max(sh.reach, 1UL);
    if (need > room)
        return 0;
    unsigned long n = max;
    if (sh.advance > 0)
        n = std::min(n, (room - need) / sh.advance + 1);
    offset += n * sh.advance;
    return n;
}

void sd_stdio_value_iterator::skip_value(sd_buffer const& buffer, unsigned long& offset)
{
    if (skip_fixed(buffer, offset, 1))
        return;
    std::unique_ptr<sd_value> v(
        sd_value::from_bytes(element_block->element->type.get(), buffer, offset, true));
}

int sd_stdio_value_iterator::seek_to(unsigned long index)
{
    restart();
    return seek(index);
}

int sd_stdio_value_iterator::seek(unsigned long count)
{
    if (count == 0)
        return 0;
    for (;;) {
        if (!at_sequence()) {
            sd_breakpoint();
            return -1;
        }
        sd_sequence* seq = current->get();
        if (exhausted(*seq)) {
            sd_breakpoint();
            return -1;
        }
        int const klass = seq->klass();
        if (klass == SD_SEQUENCE_NONE) {
            // A whole absent run is crossed by arithmetic.
            unsigned long target = count + value_index;
            bool beyond = target < count || target >= seq->count;
            if (!beyond) {
                value_index = target;
                return 0;
            }
            count = target - seq->count;
            seek_next_sequence();
            if (count == 0)
                return 0;
            continue;
        }
        if (klass != SD_SEQUENCE_VALUE)
            return -1;
        auto* s = static_cast<sd_value_sequence*>(seq);
        // A group with values and a repeat factor of 0 is never left: such a
        // group must not be made, and nothing here refuses it.
        if (repeat_index >= s->repeat_factor)
            continue;
        // s may belong to a block that the walk leaves below; it is needed
        // until this call returns.
        sd_sequence_ptr hold;
        for (;;) {
            sd_buffer const& b = s->values;
            while (count > 0 && byte_offset < b.size()) {
                unsigned long n = skip_fixed(b, byte_offset, count);
                if (n == 0) {
                    std::unique_ptr<sd_value> v(sd_value::from_bytes(
                        element_block->element->type.get(), b, byte_offset, true));
                    n = 1;
                }
                value_index += n;
                count -= n;
            }
            if (count == 0 && byte_offset < b.size())
                return 0;
            // One repetition is over.
            ++repeat_index;
            if (repeat_index < s->repeat_factor) {
                value_index = 0;
                byte_offset = 0;
            } else {
                if (!hold)
                    hold = *current;
                seek_next_sequence();
            }
            if (count == 0)
                return 0;
            // After a move the zeroed repeat_index is below s's repeat
            // factor, and the rest of the count is spent in s's bytes while
            // the position fields stand on the new sequence. That is how a
            // seek past the end of a value sequence is defined to behave.
            if (repeat_index >= s->repeat_factor)
                break;
        }
    }
}

// ---- reading ---------------------------------------------------------------

void sd_stdio_value_iterator::convert_from(sd_buffer const& buffer, unsigned long source, void* dst)
{
    unsigned char const* p = buffer.at(source);
    if (buffer.size() - source >= convert_span) {
        converter->convert(p, dst);
        return;
    }
    // A damaged block whose last image is cut short: convert a zero-filled
    // copy rather than read past the allocation.
    if (convert_scratch.size() < convert_span)
        convert_scratch.resize(convert_span);
    buffer.read_at(convert_scratch.data(), convert_span, source);
    converter->convert(convert_scratch.data(), dst);
}

int sd_stdio_value_iterator::get_raw_value(void* dst, unsigned char* is_none, unsigned char* is_end)
{
    current_value_info info = get_current_value();
    if (info.state == end_of_data) {
        sd_breakpoint();
        return -1;
    }
    *is_none = info.state == present ? 0 : 1;
    if (info.state == present) {
        unsigned long source = part_offset + info.offset;
        if (converter)
            convert_from(*info.buffer, source, dst);
        else
            info.buffer->read_at(dst, m_file_type->mem_size(), source);
    }
    if (seek(1) != 0)
        *is_end = 1;
    else
        *is_end = get_current_value().state == end_of_data ? 1 : 0;
    return 0;
}

unsigned long sd_stdio_value_iterator::get_raw_values(unsigned long count, void* dst,
                                                      unsigned char* is_none)
{
    unsigned long const stride = m_mem_type ? m_mem_type->mem_size() : 0;
    auto* out = static_cast<unsigned char*>(dst);
    unsigned long done = 0;
    unsigned char is_end = 0;
    while (done < count) {
        if (get_raw_value(out, is_none + done, &is_end) != 0)
            break;
        ++done;
        out += stride;
    }
    return done;
}

sd_value* sd_stdio_value_iterator::get_value()
{
    current_value_info info = get_current_value();
    if (info.state == end_of_data) {
        sd_breakpoint();
        return nullptr;
    }
    std::unique_ptr<sd_value> v;
    if (info.state == absent) {
        v.reset(new sd_none_value());
    } else if (info.state == constructor_only) {
        v.reset(new sd_untyped_variant_constructor_value());
    } else {
        unsigned long offset = part_offset + info.offset;
        v.reset(sd_value::from_bytes(m_file_type.get(), *info.buffer, offset, true));
    }
    seek(1);
    return v.release();
}

// ---- writing ---------------------------------------------------------------

int sd_stdio_value_iterator::set_raw_value(void const* raw)
{
    sd_type_ptr const& type = element_block->element->type;
    if (part_offset != 0 || m_file_type.get() != type.get()) {
        sd_breakpoint();
        return -1;
    }
    if (!at_sequence()) {
        sd_breakpoint();
        return -1;
    }
    sd_sequence* seq = current->get();
    if (exhausted(*seq)) {
        sd_breakpoint();
        return -1;
    }
    auto& list = current_block->sequences.list;

    if (seq->klass() == SD_SEQUENCE_NONE) {
        if (!raw)
            return 0;
        unsigned long const c = seq->count;
        unsigned long const k = value_index;
        unsigned long const after = c > k + 1 ? c - 1 - k : 0;
        auto value = std::make_shared<sd_value_sequence>(type, nullptr, 0, 0, 1);
        value->append_raw_value(raw);
        if (k != 0)
            list.insert(current, std::make_shared<sd_none_sequence>(k));
        *current = value;
        repeat_index = 0;
        value_index = 0;
        byte_offset = 0;
        if (after != 0)
            list.insert(std::next(current), std::make_shared<sd_none_sequence>(after));
        return file->update_data_block(current_block.get());
    }

    if (seq->klass() != SD_SEQUENCE_VALUE)
        return -1;
    auto* s = static_cast<sd_value_sequence*>(seq);
    sd_buffer const& b = s->values;
    unsigned long const c = s->count;
    // The old value is passed first, so that a decode that throws leaves the
    // block as it was.
    unsigned long behind = byte_offset;
    skip_value(b, behind);

    if (!raw) {
        // The sequence ahead keeps a count one above the values in its bytes;
        // readers stop at the end of the buffer, so it is stored like that.
        std::shared_ptr<sd_value_sequence> ahead, rest;
        if (byte_offset != 0) {
            ahead = std::make_shared<sd_value_sequence>(type, nullptr, 0, value_index + 1, 1);
            append_range(ahead->values, b, 0, byte_offset);
        }
        if (behind < b.size())
            rest = std::make_shared<sd_value_sequence>(type, b.data() + behind, b.size() - behind,
                                                       c - value_index - 1, 1);
        auto none = std::make_shared<sd_none_sequence>(1);
        if (ahead)
            list.insert(current, ahead);
        if (rest)
            list.insert(std::next(current), rest);
        *current = none; // releases s
    } else {
        // The new value may differ in length through its variable parts, so
        // the group is rebuilt rather than patched; its repeat factor is not
        // carried over.
        auto rebuilt = std::make_shared<sd_value_sequence>(type, nullptr, 0, 0, 1);
        if (value_index != 0)
            append_range(rebuilt->values, b, 0, byte_offset);
        rebuilt->append_raw_value(raw);
        if (value_index < c - 1 && behind < b.size())
            append_range(rebuilt->values, b, behind, b.size() - behind);
        rebuilt->count = c;
        *current = rebuilt; // releases s
    }
    repeat_index = 0;
    value_index = 0;
    byte_offset = 0;
    return file->update_data_block(current_block.get());
}

int sd_stdio_value_iterator::clear_values()
{
    if (part_offset != 0 || m_file_type.get() != element_block->element->type.get()) {
        sd_breakpoint();
        return -1;
    }
    if (!at_sequence()) {
        sd_breakpoint();
        return -1;
    }
    sd_sequence* seq = current->get();
    if (exhausted(*seq)) {
        sd_breakpoint();
        return -1;
    }
    sd_sequences& seqs = current_block->sequences;
    auto& list = seqs.list;
    if (value_index != 0) {
        // A cut inside a repeated group shortens every repetition.
        // repeat_index is left as it is: callers restart after a cut.
        seq->count = value_index;
        if (seq->klass() == SD_SEQUENCE_VALUE)
            static_cast<sd_value_sequence*>(seq)->values.resize(byte_offset);
        list.erase(std::next(current), list.end());
    } else if (current == list.begin()) {
        seqs.clear(false);
        current = list.end();
    } else {
        repeat_index = 0;
        value_index = 0;
        byte_offset = 0;
        --current;
        list.erase(std::next(current), list.end());
    }
    // The chain ends here now; the element block's last position still
    // names the old last block, and the tail block keeps its values.
    current_block->next_block_pos = -1;
    return file->update_data_block(current_block.get());
}

} // namespace orva_sd
