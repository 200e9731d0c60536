// sd_buffer: a vector of bytes with the growth rule, range checks and zlib
// steps that every record of the file goes through.
#include "sd_buffer.h"

#include "orva_sd.h"

#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace orva_sd {

sd_buffer::sd_buffer(unsigned long size)
{
    resize(size);
}

sd_buffer::sd_buffer(sd_buffer const& other, unsigned long offset)
{
    if (offset < other.size())
        append(other.begin_ + offset, other.size() - offset);
}

sd_buffer::sd_buffer(sd_buffer const& other)
{
    append(other.begin_, other.size());
}

sd_buffer::sd_buffer(sd_buffer&& other) noexcept
    : begin_(other.begin_), end_(other.end_), cap_(other.cap_)
{
    other.begin_ = other.end_ = other.cap_ = nullptr;
}

sd_buffer& sd_buffer::operator=(sd_buffer const& other)
{
    if (this != &other)
        set(other.begin_, other.size());
    return *this;
}

sd_buffer& sd_buffer::operator=(sd_buffer&& other) noexcept
{
    if (this != &other) {
        std::free(begin_);
        begin_ = other.begin_;
        end_ = other.end_;
        cap_ = other.cap_;
        other.begin_ = other.end_ = other.cap_ = nullptr;
    }
    return *this;
}

sd_buffer::~sd_buffer()
{
    std::free(begin_);
}

unsigned char* sd_buffer::at(unsigned long i)
{
    if (i >= size())
        throw std::out_of_range("sd_buffer::at");
    return begin_ + i;
}

unsigned char const* sd_buffer::at(unsigned long i) const
{
    if (i >= size())
        throw std::out_of_range("sd_buffer::at");
    return begin_ + i;
}

void sd_buffer::reallocate(unsigned long new_capacity)
{
    unsigned long n = size();
    void* p = std::realloc(begin_, new_capacity ? new_capacity : 1);
    if (!p)
        throw std::bad_alloc();
    begin_ = static_cast<unsigned char*>(p);
    end_ = begin_ + n;
    cap_ = begin_ + new_capacity;
}

void sd_buffer::resize(unsigned long n)
{
    unsigned long sz = size();
    // Reserve twice the present size first, so that a run of small appends
    // reallocates only log(n) times.
    if (n > capacity() && 2 * sz > capacity())
        reallocate(2 * sz);
    if (n > sz) {
        if (n > capacity())
            reallocate(sz + std::max(sz, n - sz));
        std::memset(begin_ + sz, 0, n - sz);
        end_ = begin_ + n;
    } else {
        end_ = begin_ + n;
    }
}

void sd_buffer::append(void const* p, unsigned long n)
{
    if (n == 0)
        return;
    unsigned long o = size();
    resize(o + n);
    std::memcpy(begin_ + o, p, n);
}

void sd_buffer::append(std::string const& s)
{
    unsigned int len = static_cast<unsigned int>(s.size());
    append(len);
    append(s.data(), len);
}

std::string sd_buffer::read_at(unsigned long& offset) const
{
    unsigned int len = read<unsigned int>(offset);
    if (len == 0)
        return std::string();
    std::string s(len, '\0');
    read_at(&s[0], len, offset);
    return s;
}

void sd_buffer::read_at(void* dst, unsigned long n, unsigned long& offset) const
{
    unsigned char const* p = at(offset);
    // Only the first byte is range-checked by contract; a length that runs
    // past the end must still never read outside the allocation.
    unsigned long avail = size() - offset;
    if (n <= avail) {
        std::memcpy(dst, p, n);
    } else {
        std::memcpy(dst, p, avail);
        std::memset(static_cast<unsigned char*>(dst) + avail, 0, n - avail);
    }
    offset += n;
}

void sd_buffer::write_at(void const* p, unsigned long n, unsigned long& offset)
{
    if (n == 0)
        return;
    resize(offset + n);
    std::memcpy(begin_ + offset, p, n);
    offset += n;
}

void sd_buffer::set(void const* p, unsigned long n)
{
    resize(n);
    if (n)
        std::memmove(begin_, p, n);
}

int sd_buffer::compress_to(sd_buffer& dst) const
{
    uLong bound = compressBound(static_cast<uLong>(size()));
    dst.resize(bound);
    uLongf out_len = bound;
    // An empty source still has a valid address for zlib.
    static unsigned char const empty_source = 0;
    Bytef const* src = begin_ ? begin_ : &empty_source;
    int rc = compress2(dst.data(), &out_len, src, static_cast<uLong>(size()), 9);
    if (rc != Z_OK) {
        sd_breakpoint();
        return -1;
    }
    dst.resize(out_len);
    return 0;
}

int sd_buffer::uncompress_to(sd_buffer& dst) const
{
    static unsigned char const empty = 0;
    uLongf out_len = static_cast<uLongf>(dst.size());
    Bytef* out = dst.data() ? dst.data() : const_cast<Bytef*>(&empty);
    Bytef const* src = begin_ ? begin_ : &empty;
    int rc = uncompress(out, &out_len, src, static_cast<uLong>(size()));
    if (rc != Z_OK) {
        sd_breakpoint();
        return -1;
    }
    dst.resize(out_len);
    return 0;
}

} // namespace orva_sd
