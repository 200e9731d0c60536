// sd_stdio_file: the data file on a stdio stream. Header and lifecycle, the
// block primitives and link updates, and the three stores built on them:
// elements (tree + chain), user types (adopted lazily), and data blocks (the
// compressed runs of each element's series).
#include "sd_stdio_file.h"

#include "orva_sd.h"
#include "sd_converter.h"
#include "sd_stdio_sequence_iterator.h"
#include "sd_stdio_value_iterator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace orva_sd {

namespace {

// Claims of a block_size above this are checked against the end of the file
// before the buffer is sized by them, so that a damaged size field costs no
// giant allocation; smaller blocks skip the extra seek.
constexpr unsigned long SD_BLOCK_SIZE_CHECK = 1UL << 20;

// deflate cannot expand by more than 1032:1, so a stated uncompressed size
// beyond that bound (plus slack for the stream's head and first literals)
// can't be met; the output buffer never needs to be larger.
constexpr unsigned long SD_INFLATE_RATIO = 1032;
constexpr unsigned long SD_INFLATE_SLACK = 1024;

// One positioned write without any hook: the link updates report a failure
// with their own fixed count, whatever step of the write went wrong.
bool write_raw_at(std::FILE* stream, long pos, void const* source, unsigned long n)
{
    if (!stream || fseeko(stream, pos, SEEK_SET) != 0)
        return false;
    return std::fwrite(source, 1, n, stream) == n;
}

// The payload of a data block: u32 sequence count, then the records. Empty
// sequences (a none run of 0, a value group without bytes) are not written,
// and the count says what was.
void serialize_payload(sd_sequences const& sequences, sd_buffer& payload)
{
    payload.clear();
    unsigned int count = static_cast<unsigned int>(sequences.list.size());
    payload.append(count);
    for (auto const& seq : sequences.list) {
        if (seq->klass() == SD_SEQUENCE_NONE) {
            if (seq->count == 0) {
                --count;
                continue;
            }
            payload.append(static_cast<unsigned char>(SD_SEQUENCE_NONE));
            payload.append(static_cast<unsigned long long>(seq->count));
            continue;
        }
        auto const* values = dynamic_cast<sd_value_sequence const*>(seq.get());
        if (!values || values->values.empty()) {
            --count;
            continue;
        }
        payload.append(static_cast<unsigned char>(SD_SEQUENCE_VALUE));
        payload.append(static_cast<unsigned long long>(values->repeat_factor));
        payload.append(static_cast<unsigned long long>(values->count));
        payload.append(static_cast<unsigned long long>(values->values.size()));
        payload.append(values->values.data(), values->values.size());
    }
    std::memcpy(payload.data(), &count, sizeof count);
}

// The whole data block: frame, element iid, uncompressed size, zlib stream.
// Both writers ignore the result of compress_to on purpose: whatever bytes
// came out are written, and a failure is not reported.
void serialize_data_block(sd_data_block const& block, sd_buffer& out)
{
    sd_buffer payload;
    serialize_payload(block.sequences, payload);
    out.clear();
    out.append(static_cast<unsigned int>(0)); // block_size, patched below
    out.append(block.prev_block_pos);
    out.append(block.next_block_pos);
    out.append(static_cast<int>(block.sequences.element->iid));
    out.append(static_cast<unsigned int>(payload.size()));
    sd_buffer stream;
    payload.compress_to(stream);
    out.append(stream.data(), stream.size());
    unsigned int const size = static_cast<unsigned int>(out.size());
    std::memcpy(out.data(), &size, sizeof size);
}

} // namespace

// ---------------------------------------------------------------------------
// Data block

sd_data_block::sd_data_block(sd_element_block* element_block, long pos, long prev, long next)
    : sd_block(pos, prev, next), element_block(element_block),
      sequences(element_block ? element_block->element.get() : nullptr)
{
}

// ---------------------------------------------------------------------------
// Lifecycle

sd_stdio_file::sd_stdio_file(char const* path, bool create)
{
    open_path(path ? path : "", create);
}

sd_stdio_file::sd_stdio_file(wchar_t const* path, bool create)
{
    std::string narrow;
    if (path && *path) {
        std::size_t const n = std::wcstombs(nullptr, path, 0);
        if (n != 0 && n != static_cast<std::size_t>(-1)) {
            narrow.resize(n + 1);
            std::size_t const written = std::wcstombs(&narrow[0], path, n + 1);
            narrow.resize(written == static_cast<std::size_t>(-1) ? 0 : written);
        }
    }
    open_path(narrow.c_str(), create);
}

void sd_stdio_file::open_path(char const* path, bool create)
{
    // An empty path fails here, which the init step below reports.
    stream = *path ? std::fopen(path, create ? "w+b" : "r+b") : nullptr;
    if (create)
        init_create();
    else
        init_open();
}

sd_stdio_file::~sd_stdio_file()
{
    if (stream)
        close();
    element_blocks_by_pos.clear();
    type_blocks_by_pos.clear();
    // A parent and its children own each other. Elements go with their
    // file (their handles are dead after close anyway), so the cycles are
    // cut here instead of leaking every tree a process ever opened.
    for (auto const& entry : m_all_elements) {
        entry.second->children.clear();
        entry.second->parent.reset();
    }
    m_all_elements.clear();
    iid_by_address.clear();
    element_blocks_by_iid.clear();
    m_root_elements.clear();
    m_user_types.clear();
}

int sd_stdio_file::init_create()
{
    if (!stream) {
        sd_breakpoint();
        return -1;
    }
    sd_buffer header;
    header.append("Q7SD", 4);
    header.append(m_format_version);
    header.append(SD_MAGIC_NUMBER);
    header.append(first_type_block_pos);
    header.append(first_element_block_pos);
    header.append(first_free_space_block_pos);
    if (write(header.data(), header.size()) != 0) {
        close();
        return -1;
    }
    return 0;
}

int sd_stdio_file::init_open()
{
    if (!stream) {
        sd_breakpoint();
        return -1;
    }
    bool header_ok = false;
    try {
        sd_buffer header(SD_HEADER_SIZE);
        if (read(header.data(), SD_HEADER_SIZE) == 0) {
            static char const magic[4] = {'Q', '7', 'S', 'D'};
            unsigned long offset = 0;
            bool magic_ok = true;
            for (int i = 0; i < 4 && magic_ok; ++i) {
                if (header.read<char>(offset) != magic[i]) {
                    sd_breakpoint();
                    magic_ok = false;
                }
            }
            if (magic_ok) {
                offset = SD_HEADER_VERSION_OFFSET;
                unsigned int const version = header.read<unsigned int>(offset);
                if (version < SD_FORMAT_VERSION_MIN || version > SD_FORMAT_VERSION_MAX) {
                    sd_breakpoint();
                } else {
                    set_format_version(version);
                    offset = SD_HEADER_MAGIC_NUMBER_OFFSET;
                    if (header.read<unsigned long long>(offset) != SD_MAGIC_NUMBER) {
                        sd_breakpoint();
                    } else {
                        offset = SD_HEADER_FIRST_TYPE_OFFSET;
                        first_type_block_pos = header.read<long>(offset);
                        first_element_block_pos = header.read<long>(offset);
                        first_free_space_block_pos = header.read<long>(offset);
                        header_ok = true;
                    }
                }
            }
        }
    } catch (...) {
        sd_breakpoint();
        header_ok = false;
    }
    if (!header_ok || read_types() != 0 || read_elements() != 0) {
        close();
        return -1;
    }
    return 0;
}

void sd_stdio_file::set_format_version(unsigned int v)
{
    m_format_version = v;
    m_format_version_str = std::to_string(v / 1000000) + "." + std::to_string(v / 1000 % 1000);
}

int sd_stdio_file::close()
{
    if (!stream) {
        sd_breakpoint();
        return -1;
    }
    int failures = 0;
    // Ascending iid: the flush order of pending values is the element order.
    for (auto const& entry : element_blocks_by_iid) {
        sd_data_block* tail = entry.second->data_block.get();
        if (tail->sequences.mem_size() != 0 && append_data_block(tail) != 0)
            ++failures;
    }
    int const rc = std::fclose(stream);
    stream = nullptr;
    if (rc != 0 || failures != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::flush()
{
    if (!stream) {
        sd_breakpoint();
        return -1;
    }
    int failures = 0;
    for (auto const& entry : element_blocks_by_iid) {
        sd_data_block* tail = entry.second->data_block.get();
        if (tail->sequences.mem_size() != 0 && append_data_block(tail) != 0)
            ++failures;
    }
    if (std::fflush(stream) != 0 || failures != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::dump() const
{
    if (sd_file::dump() != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Primitives

long sd_stdio_file::seek(long pos) const
{
    if (!stream) {
        sd_breakpoint();
        return -1;
    }
    if (pos >= 0)
        return fseeko(stream, pos, SEEK_SET) == 0 ? pos : -1;
    if (fseeko(stream, 0, SEEK_END) != 0)
        return -1;
    return ftello(stream);
}

int sd_stdio_file::read(void* target, unsigned long n) const
{
    if (std::fread(target, 1, n, stream) != n) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::write(void const* source, unsigned long n) const
{
    if (!stream || std::fwrite(source, 1, n, stream) != n) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::write_at(void const* source, unsigned long n, long pos) const
{
    if (seek(pos) < 0) {
        sd_breakpoint();
        return -1;
    }
    if (write(source, n) != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Blocks and chains

int sd_stdio_file::read_block(long pos, sd_buffer& buffer) const
{
    if (seek(pos) < 0) {
        sd_breakpoint();
        return -1;
    }
    unsigned int block_size = 0;
    if (read(&block_size, sizeof block_size) != 0) {
        sd_breakpoint();
        return -1;
    }
    if (block_size > SD_BLOCK_SIZE_CHECK) {
        // A claim beyond the end of the file ends exactly like the short
        // read it would become, only without sizing a buffer by it first.
        long const end = seek(-1);
        if (end < 0 || static_cast<unsigned long>(end) < static_cast<unsigned long>(pos) + block_size ||
            seek(pos + static_cast<long>(sizeof block_size)) < 0) {
            sd_breakpoint();
            sd_breakpoint();
            sd_breakpoint();
            sd_breakpoint();
            return -1;
        }
    }
    // A size below 4 still yields a 4-byte buffer holding that size; the
    // callers catch it by comparing the stored size with the buffer's.
    buffer.resize(std::max<unsigned long>(block_size, sizeof block_size));
    std::memcpy(buffer.data(), &block_size, sizeof block_size);
    // A body cut short is reported as the size read's two hooks and two
    // more, so that a block running past the end stands out from a missing
    // one in a debugger.
    if (read(buffer.data() + sizeof block_size, buffer.size() - sizeof block_size) != 0) {
        sd_breakpoint();
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    return 0;
}

long sd_stdio_file::append_block(sd_buffer const& buffer) const
{
    long const pos = seek(-1);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    if (write(buffer.data(), buffer.size()) != 0) {
        sd_breakpoint();
        return -1;
    }
    return pos;
}

// Each link update is one 8-byte write in place, without reading first. A
// failure is reported twice, whichever step of the write failed.

int sd_stdio_file::update_header_first_type_block_pos(long value)
{
    if (!write_raw_at(stream, SD_HEADER_FIRST_TYPE_OFFSET, &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    first_type_block_pos = value;
    return 0;
}

int sd_stdio_file::update_header_first_element_block_pos(long value)
{
    if (!write_raw_at(stream, SD_HEADER_FIRST_ELEMENT_OFFSET, &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    first_element_block_pos = value;
    return 0;
}

int sd_stdio_file::update_header_first_free_space_block_pos(long value)
{
    if (!write_raw_at(stream, SD_HEADER_FIRST_FREE_SPACE_OFFSET, &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    first_free_space_block_pos = value;
    return 0;
}

int sd_stdio_file::update_block_next_block_pos(long pos, long value) const
{
    if (!write_raw_at(stream, pos + static_cast<long>(SD_BLOCK_NEXT_OFFSET), &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::update_block_next_block_pos(sd_block& block, long value) const
{
    if (update_block_next_block_pos(block.pos, value) != 0) {
        sd_breakpoint();
        return -1;
    }
    block.next_block_pos = value;
    return 0;
}

int sd_stdio_file::update_block_prev_block_pos(sd_block& block, long value) const
{
    if (!write_raw_at(stream, block.pos + static_cast<long>(SD_BLOCK_PREV_OFFSET), &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    block.prev_block_pos = value;
    return 0;
}

// Writes at `pos` itself, not at pos + 4: the one caller, the relinking of a
// moved data block, passes the neighbour's position as it stands, and the
// bytes land where it says.
int sd_stdio_file::update_block_prev_block_pos(long pos, long value) const
{
    if (!write_raw_at(stream, pos, &value, sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::update_element_first_data_block_pos(sd_element_block& block, long value) const
{
    if (!write_raw_at(stream, block.pos + static_cast<long>(SD_ELEMENT_FIRST_DATA_OFFSET), &value,
                      sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    block.first_data_block_pos = value;
    return 0;
}

int sd_stdio_file::update_element_last_data_block_pos(sd_element_block& block, long value) const
{
    if (!write_raw_at(stream, block.pos + static_cast<long>(SD_ELEMENT_LAST_DATA_OFFSET), &value,
                      sizeof value)) {
        sd_breakpoint();
        sd_breakpoint();
        return -1;
    }
    block.last_data_block_pos = value;
    return 0;
}

// ---------------------------------------------------------------------------
// Element store

sd_element_ptr sd_stdio_file::create_element(std::string const& name, sde_tag_kind kind,
                                             sd_type_ptr const& type, sd_element_ptr const& parent)
{
    sd_element_ptr const sibling = parent ? parent->find_child(name) : find_root_element(name);
    if (sibling) {
        sd_breakpoint();
        return nullptr;
    }
    // Dependencies first, so every type record names only earlier ones.
    std::list<sd_type_ptr> to_add;
    gather_user_types_to_add(type, to_add);
    for (auto const& t : to_add) {
        ++last_iid;
        t->set_iid(last_iid);
        if (append_type(t) != 0) {
            sd_breakpoint();
            return nullptr;
        }
    }
    ++last_iid;
    auto element = std::make_shared<sd_element>(last_iid, name, kind, type, parent, this);
    if (append_element(element) != 0) {
        sd_breakpoint();
        return nullptr;
    }
    return element;
}

int sd_stdio_file::append_element(sd_element_ptr const& element)
{
    auto block = std::make_shared<sd_element_block>(element, -1, -1, -1, -1, -1);
    // The chain is in ascending iid, so its tail is the block of greatest iid.
    std::shared_ptr<sd_element_block> tail;
    if (!element_blocks_by_iid.empty()) {
        tail = element_blocks_by_iid.rbegin()->second;
        block->prev_block_pos = tail->pos;
    }
    sd_buffer record;
    sd_serialize_element(block.get(), record);
    long const pos = append_block(record);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    block->pos = pos;
    int const rc = tail ? update_block_next_block_pos(*tail, pos) : update_header_first_element_block_pos(pos);
    if (rc != 0) {
        sd_breakpoint();
        return -1;
    }
    add_element_block(block);
    return 0;
}

void sd_stdio_file::add_element_block(std::shared_ptr<sd_element_block> const& block)
{
    sd_element_ptr const& element = block->element;
    if (element->parent)
        element->parent->children.push_back(element);
    else
        m_root_elements.push_back(element);
    m_all_elements.emplace(element->iid, element);
    iid_by_address.emplace(reinterpret_cast<long>(element.get()), element->iid);
    element_blocks_by_iid.emplace(element->iid, block);
    element_blocks_by_pos.emplace(block->pos, block);
    if (element->iid > last_iid)
        last_iid = element->iid;
}

int sd_stdio_file::read_elements()
{
    if (first_element_block_pos == -1)
        return 0;
    sd_buffer record;
    long pos = first_element_block_pos;
    while (pos != -1) {
        if (read_block(pos, record) != 0) {
            sd_breakpoint();
            return -1;
        }
        std::shared_ptr<sd_element_block> block;
        try {
            unsigned long offset = 0;
            if (record.read<unsigned int>(offset) != record.size()) {
                sd_breakpoint();
                sd_breakpoint();
                return -1;
            }
            long const prev = record.read<long>(offset);
            long const next = record.read<long>(offset);
            long const first_data = record.read<long>(offset);
            long const last_data = record.read<long>(offset);
            int const iid = record.read<int>(offset);
            // A name running past the record would fail at the kind byte
            // behind it anyway; failing before the string is sized by the
            // damaged length costs no allocation.
            unsigned long peek = offset;
            unsigned long const name_length = record.read<unsigned int>(peek);
            if (peek + name_length >= record.size())
                throw std::out_of_range("element name runs past its record");
            std::string name = record.read_at(offset);
            int const kind = record.read<signed char>(offset);
            int const type_iid = record.read<int>(offset);
            int const parent_iid = record.read<int>(offset);
            sd_element_ptr parent;
            if (parent_iid != -1) {
                parent = find_element_by_iid(parent_iid);
                if (!parent) {
                    sd_breakpoint();
                    sd_breakpoint();
                    return -1;
                }
            }
            sd_type_ptr type;
            if (type_iid != -1) {
                type = find_type_by_iid(type_iid);
                if (!type) {
                    sd_breakpoint();
                    sd_breakpoint();
                    return -1;
                }
            }
            auto element = std::make_shared<sd_element>(iid, std::move(name), static_cast<sde_tag_kind>(kind),
                                                        std::move(type), std::move(parent), this);
            block = std::make_shared<sd_element_block>(element, pos, prev, next, first_data, last_data);
        } catch (...) {
            sd_breakpoint();
            sd_breakpoint();
            return -1;
        }
        add_element_block(block);
        pos = block->next_block_pos;
    }
    return 0;
}

int sd_stdio_file::set_element_name(sd_element* element, std::string const& name)
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return -1;
    }
    unsigned int stored_size = 0;
    if (seek(block->pos) < 0 || read(&stored_size, sizeof stored_size) != 0) {
        sd_breakpoint();
        return -1;
    }
    element->name = name;
    sd_buffer record;
    sd_serialize_element(block.get(), record);
    if (record.size() <= stored_size) {
        if (write_at(record.data(), record.size(), block->pos) != 0) {
            sd_breakpoint();
            return -1;
        }
        return 0;
    }
    // Longer than its extent: the record moves to the end and keeps its
    // neighbours. Forward link (or header) first, backward link second, so a
    // walk along next_block_pos always finds the whole chain.
    long const pos = append_block(record);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    element_blocks_by_pos.erase(block->pos);
    block->pos = pos;
    element_blocks_by_pos.emplace(pos, block);
    if (block->prev_block_pos != -1) {
        auto const prev = find_element_block_by_pos(block->prev_block_pos);
        if (!prev) {
            sd_breakpoint();
            return -1;
        }
        if (update_block_next_block_pos(*prev, pos) != 0) {
            sd_breakpoint();
            return -1;
        }
    } else if (update_header_first_element_block_pos(pos) != 0) {
        sd_breakpoint();
        return -1;
    }
    if (block->next_block_pos != -1) {
        auto const next = find_element_block_by_pos(block->next_block_pos);
        if (!next) {
            sd_breakpoint();
            return -1;
        }
        if (update_block_prev_block_pos(*next, pos) != 0) {
            sd_breakpoint();
            return -1;
        }
    }
    return 0;
}

int sd_stdio_file::set_element_kind(sd_element* element, sde_tag_kind kind)
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return -1;
    }
    // Unlike a rename, a failed read of the stored size doesn't stop the
    // change: memory takes the kind, and the write below then refuses.
    unsigned int stored_size = 0;
    if (seek(block->pos) < 0 || read(&stored_size, sizeof stored_size) != 0)
        sd_breakpoint();
    element->kind = kind;
    sd_buffer record;
    sd_serialize_element(block.get(), record);
    if (record.size() > stored_size) {
        sd_breakpoint();
        return -1;
    }
    if (write_at(record.data(), record.size(), block->pos) != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::set_element_type(sd_element* element, sd_type_ptr const& type)
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return -1;
    }
    unsigned int stored_size = 0;
    if (seek(block->pos) < 0 || read(&stored_size, sizeof stored_size) != 0)
        sd_breakpoint();
    // Stored values were written under the old type; the chain is dropped
    // rather than read under a type that no longer describes it.
    element->type = type;
    block->first_data_block_pos = -1;
    block->last_data_block_pos = -1;
    sd_buffer record;
    sd_serialize_element(block.get(), record);
    if (record.size() > stored_size) {
        sd_breakpoint();
        return -1;
    }
    if (write_at(record.data(), record.size(), block->pos) != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

sd_element_ptr sd_stdio_file::element_at_address(long id) const
{
    auto it = iid_by_address.find(id);
    if (it == iid_by_address.end())
        return nullptr;
    // all_elements keeps the first element of an iid; another one with the
    // same iid (a damaged file) isn't in it and isn't found, as by a walk.
    sd_element_ptr e = find_element_by_iid(it->second);
    return reinterpret_cast<long>(e.get()) == id ? e : nullptr;
}

int sd_stdio_file::remove_element(sd_element* element)
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return -1;
    }
    if (block->prev_block_pos != -1) {
        auto const prev = find_element_block_by_pos(block->prev_block_pos);
        if (!prev) {
            sd_breakpoint();
            return -1;
        }
        if (update_block_next_block_pos(*prev, block->next_block_pos) != 0) {
            sd_breakpoint();
            return -1;
        }
    } else if (update_header_first_element_block_pos(block->next_block_pos) != 0) {
        sd_breakpoint();
        return -1;
    }
    if (block->next_block_pos != -1) {
        auto const next = find_element_block_by_pos(block->next_block_pos);
        if (!next) {
            sd_breakpoint();
            return -1;
        }
        if (update_block_prev_block_pos(*next, block->prev_block_pos) != 0) {
            sd_breakpoint();
            return -1;
        }
    }
    element_blocks_by_pos.erase(block->pos);
    element_blocks_by_iid.erase(element->iid);
    // Children stay as they are: their records still name this element, so
    // the caller removes the deepest elements first.
    if (element->parent) {
        element->parent->remove_child(element);
    } else {
        for (auto it = m_root_elements.begin(); it != m_root_elements.end(); ++it) {
            if (it->get() == element) {
                m_root_elements.erase(it);
                break;
            }
        }
    }
    iid_by_address.erase(reinterpret_cast<long>(element));
    // Last: this entry may hold the last reference to the element.
    m_all_elements.erase(element->iid);
    return 0;
}

std::shared_ptr<sd_element_block> sd_stdio_file::find_element_block_by_iid(int iid) const
{
    auto const it = element_blocks_by_iid.find(iid);
    return it == element_blocks_by_iid.end() ? nullptr : it->second;
}

std::shared_ptr<sd_element_block> sd_stdio_file::find_element_block_by_pos(long pos) const
{
    auto const it = element_blocks_by_pos.find(pos);
    return it == element_blocks_by_pos.end() ? nullptr : it->second;
}

// ---------------------------------------------------------------------------
// Type store

void sd_stdio_file::gather_user_types_to_add(sd_type_ptr const& type, std::list<sd_type_ptr>& list) const
{
    if (!type || dynamic_cast<sd_predefined_type const*>(type.get()))
        return;
    // Components first, also of a type that is already stored. There is no
    // visited set: a type reached twice is listed (and stored) twice.
    if (auto const* array = dynamic_cast<sd_array_type const*>(type.get())) {
        gather_user_types_to_add(array->base_type, list);
    } else if (auto const* st = dynamic_cast<sd_struct_type const*>(type.get())) {
        for (auto const& field : st->fields)
            gather_user_types_to_add(field->type, list);
    } else if (auto const* variant = dynamic_cast<sd_variant_type const*>(type.get())) {
        for (auto const& c : variant->constructors)
            gather_user_types_to_add(c->value_type, list);
    }
    for (auto const& entry : m_user_types)
        if (entry.second.get() == type.get())
            return;
    list.push_back(type);
}

int sd_stdio_file::append_type(sd_type_ptr const& type)
{
    auto block = std::make_shared<sd_type_block>(type, -1, -1, -1);
    // Type blocks only ever go to the end of the file, so the block of
    // highest position is the tail of the chain.
    std::shared_ptr<sd_type_block> tail;
    if (!type_blocks_by_pos.empty()) {
        tail = type_blocks_by_pos.rbegin()->second;
        block->prev_block_pos = tail->pos;
    }
    sd_buffer record;
    sd_serialize_type(block.get(), record);
    long const pos = append_block(record);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    block->pos = pos;
    int const rc = tail ? update_block_next_block_pos(*tail, pos) : update_header_first_type_block_pos(pos);
    if (rc != 0) {
        sd_breakpoint();
        return -1;
    }
    add_type_block(block);
    return 0;
}

void sd_stdio_file::add_type_block(std::shared_ptr<sd_type_block> const& block)
{
    int const iid = block->type->iid();
    m_user_types.emplace(iid, block->type);
    type_blocks_by_pos.emplace(block->pos, block);
    if (iid > last_iid)
        last_iid = iid;
}

int sd_stdio_file::read_types()
{
    sd_buffer record;
    long pos = first_type_block_pos;
    while (pos != -1) {
        if (read_block(pos, record) != 0) {
            sd_breakpoint();
            return -1;
        }
        auto const block = sd_deserialize_type(record, pos, this);
        if (!block) {
            sd_breakpoint();
            return -1;
        }
        // Registered before the next record is read: later records refer to
        // this type by iid.
        add_type_block(block);
        pos = block->next_block_pos;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Data block store

int sd_stdio_file::append_raw_value(sd_element const* element, void const* raw)
{
    auto const it = element_blocks_by_iid.find(element->iid);
    if (it == element_blocks_by_iid.end()) {
        sd_breakpoint();
        return -1;
    }
    sd_data_block* tail = it->second->data_block.get();
    tail->sequences.append_raw_value(raw);
    if (tail->sequences.mem_size() < SD_FLUSH_THRESHOLD)
        return 0;
    if (append_data_block(tail) != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::append_raw_values(sd_element const* element, unsigned long count,
                                     void const* data, unsigned char const* is_none)
{
    unsigned long const stride = element->type ? element->type->mem_size() : 0;
    auto const* bytes = static_cast<unsigned char const*>(data);
    for (unsigned long i = 0; i < count; ++i) {
        bool const none = !bytes || (is_none && is_none[i]);
        if (append_raw_value(element, none ? nullptr : bytes + i * stride) != 0)
            return -1;
    }
    return 0;
}

int sd_stdio_file::append_sequence(sd_element const* element, sd_sequence* sequence)
{
    auto const it = element_blocks_by_iid.find(element->iid);
    if (it == element_blocks_by_iid.end()) {
        sd_breakpoint();
        return -1;
    }
    // By id(): predefined types match by kind, user types only as the very
    // object, so a structurally equal type of another file doesn't match.
    if (sequence->type && (!element->type || sequence->type->id() != element->type->id())) {
        sd_breakpoint();
        return -1;
    }
    sd_data_block* tail = it->second->data_block.get();
    tail->sequences.append(sequence);
    if (tail->sequences.mem_size() < SD_FLUSH_THRESHOLD)
        return 0;
    if (append_data_block(tail) != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

int sd_stdio_file::append_data_block(sd_data_block* block) const
{
    sd_element_block& owner = *block->element_block;
    block->prev_block_pos = owner.last_data_block_pos;
    // The tail block's scratch buffer keeps its capacity from flush to flush.
    sd_buffer& out = block->sequences.scratch;
    serialize_data_block(*block, out);
    long const pos = append_block(out);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    // The tail block keeps this position, so that a later rewrite through
    // it lands on the block just written.
    block->pos = pos;
    int const rc = owner.first_data_block_pos == -1
                       ? update_element_first_data_block_pos(owner, pos)
                       : update_block_next_block_pos(owner.last_data_block_pos, pos);
    if (rc != 0) {
        sd_breakpoint();
        return -1;
    }
    if (update_element_last_data_block_pos(owner, pos) != 0) {
        sd_breakpoint();
        return -1;
    }
    block->sequences.clear(true);
    return 0;
}

int sd_stdio_file::update_data_block(sd_data_block* block) const
{
    if (block->pos == -1)
        return 0;
    unsigned int stored_size = 0;
    if (!stream || seek(block->pos) < 0 || read(&stored_size, sizeof stored_size) != 0) {
        sd_breakpoint();
        return -1;
    }
    sd_buffer out;
    serialize_data_block(*block, out);
    if (out.size() <= stored_size) {
        // In place; the rest of the old extent becomes dead bytes.
        if (write_at(out.data(), out.size(), block->pos) != 0) {
            sd_breakpoint();
            return -1;
        }
        return 0;
    }
    long const pos = append_block(out);
    if (pos < 0) {
        sd_breakpoint();
        return -1;
    }
    block->pos = pos;
    sd_element_block& owner = *block->element_block;
    // The relinking is kept exactly as the format's writers have always done
    // it: the element's last block is patched (not this block's
    // predecessor), and the successor gets the position-form prev update,
    // which writes at its very start.
    int rc = block->prev_block_pos == -1 ? update_element_first_data_block_pos(owner, pos)
                                         : update_block_next_block_pos(owner.last_data_block_pos, pos);
    if (rc != 0) {
        sd_breakpoint();
        return -1;
    }
    rc = block->next_block_pos == -1 ? update_element_last_data_block_pos(owner, pos)
                                     : update_block_prev_block_pos(block->next_block_pos, pos);
    if (rc != 0) {
        sd_breakpoint();
        return -1;
    }
    return 0;
}

std::shared_ptr<sd_data_block> sd_stdio_file::read_data(long pos) const
{
    if (pos == -1) {
        sd_breakpoint();
        return nullptr;
    }
    sd_buffer raw;
    if (read_block(pos, raw) != 0) {
        sd_breakpoint();
        return nullptr;
    }
    unsigned long offset = SD_BLOCK_SIZE_OFFSET;
    if (raw.read<unsigned int>(offset) != raw.size()) {
        sd_breakpoint();
        return nullptr;
    }
    long const prev = raw.read<long>(offset);
    long const next = raw.read<long>(offset);
    int const iid = raw.read<int>(offset);
    auto const owner = find_element_block_by_iid(iid);
    if (!owner) {
        sd_breakpoint();
        return nullptr;
    }
    offset = SD_DATA_USIZE_OFFSET;
    unsigned long const stated_size = raw.read<unsigned int>(offset);
    sd_buffer const compressed(raw, SD_DATA_HEAD_SIZE);
    sd_buffer payload(std::min(stated_size, compressed.size() * SD_INFLATE_RATIO + SD_INFLATE_SLACK));
    if (compressed.uncompress_to(payload) != 0) {
        sd_breakpoint();
        return nullptr;
    }
    auto block = std::make_shared<sd_data_block>(owner.get(), pos, prev, next);
    // Records are trusted only as far as the payload goes: a read that
    // starts past it raises, a data size that runs past it gets zeros, and
    // anything raised drops the half-built block.
    try {
        sd_sequences& sequences = block->sequences;
        sd_type_ptr const& type = owner->element->type;
        offset = 0;
        unsigned int const count = payload.read<unsigned int>(offset);
        for (unsigned int i = 0; i < count; ++i) {
            unsigned long field = offset;
            unsigned char const tag = payload.read<unsigned char>(field);
            if (tag == SD_SEQUENCE_NONE) {
                unsigned long long const n = payload.read<unsigned long long>(field);
                sequences.append(new sd_none_sequence(n));
                offset += 9;
            } else if (tag == SD_SEQUENCE_VALUE) {
                unsigned long long const repeat = payload.read<unsigned long long>(field);
                unsigned long long const n = payload.read<unsigned long long>(field);
                unsigned long long const data_size = payload.read<unsigned long long>(field);
                unsigned long data_offset = offset + 25;
                payload.at(data_offset); // a group that starts past the payload raises here
                std::unique_ptr<sd_value_sequence> seq(new sd_value_sequence(type, nullptr, 0, n, repeat));
                seq->values.resize(data_size);
                payload.read_at(seq->values.data(), data_size, data_offset);
                sequences.append(seq.release());
                offset += 25 + data_size;
            } else {
                sd_breakpoint();
                return nullptr;
            }
        }
    } catch (...) {
        sd_breakpoint();
        return nullptr;
    }
    return block;
}

// ---------------------------------------------------------------------------
// Iterators

sd_value_iterator* sd_stdio_file::create_value_iterator(sd_element const* element,
                                                        sd_type_ptr const& type) const
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return nullptr;
    }
    sd_converter_ptr converter;
    if (element->type && type) {
        converter = sd_converter::build(element->type.get(), type.get());
        if (!converter) {
            sd_breakpoint();
            return nullptr;
        }
        // Equal layouts: the iterator copies bytes, without a converter.
        if (dynamic_cast<sd_copy_converter const*>(converter.get()))
            converter.reset();
    }
    return new sd_stdio_value_iterator(this, block, type ? type : element->type, converter);
}

sd_value_iterator* sd_stdio_file::create_value_iterator(char const* path, sd_type_ptr const& mem_type) const
{
    char const* tail = nullptr;
    sd_type_ptr part_type;
    unsigned long offset = 0;
    std::list<variant_tag_info_t> tags;
    sd_element_ptr const element = find_element_part(path, &tail, part_type, offset, tags);
    if (!element) {
        sd_breakpoint();
        return nullptr;
    }
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return nullptr;
    }
    sd_converter_ptr converter;
    if (part_type && mem_type) {
        converter = sd_converter::build(part_type.get(), mem_type.get());
        if (!converter) {
            sd_breakpoint();
            return nullptr;
        }
        if (dynamic_cast<sd_copy_converter const*>(converter.get()))
            converter.reset();
    }
    return new sd_stdio_value_iterator(this, block, part_type, mem_type ? mem_type : part_type, converter,
                                       offset, tags);
}

sd_sequence_iterator* sd_stdio_file::create_sequence_iterator(sd_element const* element) const
{
    auto const block = find_element_block_by_iid(element->iid);
    if (!block) {
        sd_breakpoint();
        return nullptr;
    }
    return new sd_stdio_sequence_iterator(this, block);
}

} // namespace orva_sd
