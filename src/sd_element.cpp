// The element tree node, its text form, and the element record: the memory
// side of what sd_stdio_file.cpp keeps in step with the element chain on
// disk. Nothing here touches the stream.
#include "sd_element.h"

#include "sd_stdio_file.h"
#include "sd_type.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace orva_sd {

sd_element::sd_element(int iid, std::string name, sde_tag_kind kind, std::shared_ptr<sd_type> type,
                       sd_element_ptr parent, sd_file* file)
    : iid(iid), name(std::move(name)), type(std::move(type)), kind(kind),
      parent(std::move(parent)), file(file)
{
}

sd_element::~sd_element() = default;

sd_element_ptr sd_element::find_child(std::string const& name) const
{
    for (auto const& child : children)
        if (child->name == name)
            return child;
    return nullptr;
}

void sd_element::remove_child(sd_element const* element)
{
    for (auto it = children.begin(); it != children.end(); ++it) {
        if (it->get() == element) {
            children.erase(it);
            return;
        }
    }
}

std::string sd_element::to_string(std::string const& indent) const
{
    char number[32];
    std::string s = indent;
    std::snprintf(number, sizeof number, "[%d] ", iid);
    s += number;
    // The kind is kept as any int (a reopened file may even give a negative
    // one); only the twenty known values have a word.
    if (char const* word = sde_tag_kind_word(kind)) {
        s += word;
        s += ' ';
    }
    s += name;
    s += ": t:";
    if (type) {
        std::snprintf(number, sizeof number, "[%d]", type->iid());
        s += number;
    } else {
        s += "none";
    }
    std::string const child_indent = indent + "    ";
    for (auto const& child : children) {
        s += '\n';
        s += child->to_string(child_indent);
    }
    return s;
}

char const* sde_tag_kind_word(int kind)
{
    static char const* const words[] = {
        "SENSOR",   "INPUT",    "OUTPUT",    "WIRE",     "LOCAL",     "PROBE",      "GROUP_ITEM",
        "ASSUME",   "GUARANTEE", "SIGNAL",   "OPERATOR", "INSTANCE",  "AUTOMATON",  "STATE",
        "FORK",     "TRANSITION", "IF_BLOCK", "WHEN_BLOCK", "BRANCH", "ASSERT",
    };
    if (kind < 0 || kind >= static_cast<int>(sizeof words / sizeof words[0]))
        return nullptr;
    return words[kind];
}

sd_element_block::sd_element_block(sd_element_ptr element, long pos, long prev, long next,
                                   long first_data_block_pos, long last_data_block_pos)
    : sd_block(pos, prev, next), element(std::move(element)),
      first_data_block_pos(first_data_block_pos), last_data_block_pos(last_data_block_pos),
      data_block(std::make_shared<sd_data_block>(this, -1, -1, -1))
{
}

sd_element_block::~sd_element_block() = default;

void sd_serialize_element(sd_element_block const* block, sd_buffer& buffer)
{
    sd_element const& e = *block->element;
    buffer.append(static_cast<unsigned int>(0)); // block_size, patched below
    buffer.append(block->prev_block_pos);
    buffer.append(block->next_block_pos);
    buffer.append(block->first_data_block_pos);
    buffer.append(block->last_data_block_pos);
    buffer.append(static_cast<int>(e.iid));
    buffer.append(e.name);
    // The record keeps the low byte of the kind; memory keeps the whole int.
    buffer.append(static_cast<unsigned char>(static_cast<int>(e.kind) & 0xFF));
    buffer.append(static_cast<int>(e.type ? e.type->iid() : -1));
    buffer.append(static_cast<int>(e.parent ? e.parent->iid : -1));
    unsigned int const size = static_cast<unsigned int>(buffer.size());
    std::memcpy(buffer.at(SD_BLOCK_SIZE_OFFSET), &size, sizeof size);
}

} // namespace orva_sd
