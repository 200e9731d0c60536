// The sequence iterator: the walk over an element's stored blocks and then
// its tail block, one run at a time, handing out clones that keep count and
// repeat factor, ready to be appended elsewhere.
#include "sd_stdio_sequence_iterator.h"

#include "orva_sd.h"
#include "sd_element.h"
#include "sd_stdio_file.h"

#include <memory>

namespace orva_sd {

sd_sequence_iterator::~sd_sequence_iterator() = default;

sd_stdio_sequence_iterator::sd_stdio_sequence_iterator(sd_stdio_file const* file,
                                                       std::shared_ptr<sd_element_block> element_block)
    : file(file), element_block(std::move(element_block))
{
    // An element without data still gets an iterator, standing at the end.
    seek_next_data_block();
}

sd_stdio_sequence_iterator::~sd_stdio_sequence_iterator() = default;

inline bool sd_stdio_sequence_iterator::at_sequence() const
{
    return current_block && current != current_block->sequences.list.end() && *current;
}

void sd_stdio_sequence_iterator::enter(std::shared_ptr<sd_data_block> block)
{
    current_block = std::move(block);
    if (current_block)
        current = current_block->sequences.list.begin();
}

void sd_stdio_sequence_iterator::enter_stored(long pos)
{
    // A chain that comes back to a block of this walk is damaged; it ends
    // the stored part of the walk like an unreadable block would.
    if (visited.insert(pos).second)
        enter(file->read_data(pos));
    else
        enter(nullptr);
}

int sd_stdio_sequence_iterator::seek_next_data_block()
{
    if (!current_block) {
        visited.clear();
        long first = element_block->first_data_block_pos;
        if (first != -1)
            enter_stored(first);
        else
            enter(element_block->data_block);
    }
    // Counts play no part here: an empty sequence is a sequence, and only
    // blocks with empty lists are passed over.
    while (current_block) {
        if (at_sequence())
            return 0;
        if (current_block->next_block_pos == -1) {
            if (current_block == element_block->data_block) {
                sd_breakpoint();
                return -1;
            }
            break;
        }
        enter_stored(current_block->next_block_pos);
    }
    // Behind the stored chain, or behind a block that could not be read,
    // the walk goes on in the tail block.
    if (!element_block->data_block) {
        sd_breakpoint();
        return -1;
    }
    enter(element_block->data_block);
    if (at_sequence())
        return 0;
    sd_breakpoint();
    return -1;
}

int sd_stdio_sequence_iterator::seek_next_sequence()
{
    if (current_block && current != current_block->sequences.list.end())
        ++current;
    if (at_sequence())
        return 0;
    if (seek_next_data_block() == 0)
        return 0;
    sd_breakpoint();
    return -1;
}

int sd_stdio_sequence_iterator::seek(unsigned long count)
{
    // Unlike the value iterator, a seek needs a sequence under it, even for
    // a count of 0.
    if (!at_sequence()) {
        sd_breakpoint();
        return -1;
    }
    for (unsigned long i = 0; i < count; ++i) {
        if (seek_next_sequence() != 0) {
            sd_breakpoint();
            return -1;
        }
    }
    return 0;
}

sd_sequence* sd_stdio_sequence_iterator::get_sequence()
{
    std::unique_ptr<sd_sequence> result;
    if (at_sequence())
        result.reset((*current)->clone());
    // The step comes after the clone, and also when there was nothing: on
    // the last sequence it fails inside, and the next call returns null.
    seek(1);
    return result.release();
}

} // namespace orva_sd
