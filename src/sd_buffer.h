// The one growable byte buffer of the library. Every record is assembled in
// one before it reaches the file, every record read back is parsed out of one,
// and the zlib step of the data path is a pair of its methods.
#ifndef ORVA_SD_BUFFER_H
#define ORVA_SD_BUFFER_H

#include <cstring>
#include <string>
#include <type_traits>

namespace orva_sd {

class sd_buffer {
public:
    sd_buffer() = default;
    explicit sd_buffer(unsigned long size);
    // A copy of the bytes of `other` from `offset` to its end.
    sd_buffer(sd_buffer const& other, unsigned long offset);
    sd_buffer(sd_buffer const& other);
    sd_buffer(sd_buffer&& other) noexcept;
    sd_buffer& operator=(sd_buffer const& other);
    sd_buffer& operator=(sd_buffer&& other) noexcept;
    ~sd_buffer();

    void clear() { end_ = begin_; }

    // Address of byte i; i not below the size raises std::out_of_range.
    unsigned char* at(unsigned long i);
    unsigned char const* at(unsigned long i) const;

    unsigned long size() const { return static_cast<unsigned long>(end_ - begin_); }
    unsigned long capacity() const { return static_cast<unsigned long>(cap_ - begin_); }
    bool empty() const { return end_ == begin_; }
    unsigned char* data() { return begin_; }
    unsigned char const* data() const { return begin_; }

    // Growth doubles the capacity on repeated small appends; newly exposed
    // bytes are always zero; shrinking keeps the capacity.
    void resize(unsigned long n);

    void append(void const* p, unsigned long n);
    // A length-prefixed field: u32 length (cut to 32 bits), then the bytes.
    void append(std::string const& s);
    template <class T>
    void append(T const& v)
    {
        static_assert(std::is_trivially_copyable<T>::value && !std::is_pointer<T>::value,
                      "append<T> stores a plain fixed-width value");
        unsigned long o = size();
        resize(o + sizeof(T));
        std::memcpy(begin_ + o, &v, sizeof(T));
    }

    // Reads a length-prefixed string at `offset` and advances past it. The
    // range check covers the first byte of the length field; bytes that a
    // length claims beyond the end read as zeros.
    std::string read_at(unsigned long& offset) const;
    // Copies n bytes from `offset`. The first byte must lie inside the buffer
    // (out_of_range otherwise, also for n == 0); a range running past the end
    // copies what exists and zero-fills the rest of `dst`.
    void read_at(void* dst, unsigned long n, unsigned long& offset) const;
    // Typed read through read_at(void*, n, offset).
    template <class T>
    T read(unsigned long& offset) const
    {
        T v;
        read_at(&v, sizeof(T), offset);
        return v;
    }

    // With n of 0 nothing happens. Otherwise the size becomes offset + n
    // (cutting off whatever stood behind), the bytes are copied in, and
    // offset advances by n.
    void write_at(void const* p, unsigned long n, unsigned long& offset);

    // Makes the buffer exactly these n bytes.
    void set(void const* p, unsigned long n);

    // zlib stream of all of this buffer into dst (compress2, level 9).
    int compress_to(sd_buffer& dst) const;
    // Inflates this zlib stream into dst, which comes in sized to the
    // expected length; on success dst shrinks to what zlib produced.
    int uncompress_to(sd_buffer& dst) const;

private:
    void reallocate(unsigned long new_capacity);

    unsigned char* begin_ = nullptr;
    unsigned char* end_ = nullptr;
    unsigned char* cap_ = nullptr;
};

} // namespace orva_sd

#endif
