// sd_buffer: growth, truncating writes, the first-byte range rule, safe
// reads past the end, strings and the zlib steps.
#include "sd_buffer.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

using orva_sd::sd_buffer;

static std::vector<unsigned char> bytes_of(sd_buffer const& b)
{
    return std::vector<unsigned char>(b.data(), b.data() + b.size());
}

TEST(Buffer, GrowthDoublesAndExposesZeros)
{
    sd_buffer b;
    EXPECT_EQ(b.data(), nullptr); // a never-filled buffer has no allocation
    EXPECT_TRUE(b.empty());

    unsigned char one = 0xAB;
    b.append(&one, 1);
    EXPECT_EQ(b.capacity(), 1u);
    b.append(&one, 1);
    EXPECT_EQ(b.capacity(), 2u);
    b.append(&one, 1);
    EXPECT_EQ(b.capacity(), 4u); // reallocated to exactly twice the size
    b.append(&one, 1);
    b.append(&one, 1);
    EXPECT_EQ(b.capacity(), 8u);

    b.resize(2);
    EXPECT_EQ(b.capacity(), 8u); // shrinking keeps the capacity
    b.resize(6);
    EXPECT_EQ(bytes_of(b), (std::vector<unsigned char>{0xAB, 0xAB, 0, 0, 0, 0}));

    sd_buffer big;
    big.resize(3);
    big.resize(100); // a jump beyond twice the size grows to the request
    EXPECT_EQ(big.capacity(), 100u);
    for (unsigned long i = 0; i < big.size(); ++i)
        ASSERT_EQ(*big.at(i), 0);

    b.append(nullptr, 0); // nothing at all
    EXPECT_EQ(b.size(), 6u);
}

TEST(Buffer, WriteAtTruncatesAndExtends)
{
    sd_buffer b;
    unsigned char src[4] = {1, 2, 3, 4};
    b.append(src, 4);

    unsigned long off = 1;
    unsigned char x = 9;
    b.write_at(&x, 1, off);
    EXPECT_EQ(off, 2u);
    EXPECT_EQ(bytes_of(b), (std::vector<unsigned char>{1, 9})); // cut behind the write

    off = 5;
    b.write_at(&x, 1, off);
    EXPECT_EQ(bytes_of(b), (std::vector<unsigned char>{1, 9, 0, 0, 0, 9}));

    off = 0;
    b.write_at(src, 0, off); // n of 0 changes nothing, not even the size
    EXPECT_EQ(b.size(), 6u);
    EXPECT_EQ(off, 0u);

    b.set(nullptr, 0);
    EXPECT_TRUE(b.empty());
}

TEST(Buffer, RangeChecksLookAtTheFirstByteOnly)
{
    sd_buffer b;
    unsigned char src[3] = {7, 8, 9};
    b.append(src, 3);

    EXPECT_THROW(b.at(3), std::out_of_range);
    unsigned long off = 3;
    unsigned char dst[8];
    EXPECT_THROW(b.read_at(dst, 0, off), std::out_of_range); // even an empty read

    // A range that starts inside and runs past the end copies what exists
    // and zero-fills the rest, never reading outside the allocation.
    std::fill(dst, dst + 8, 0xEE);
    off = 1;
    b.read_at(dst, 6, off);
    EXPECT_EQ(off, 7u);
    EXPECT_EQ(std::vector<unsigned char>(dst, dst + 7),
              (std::vector<unsigned char>{8, 9, 0, 0, 0, 0, 0xEE}));

    sd_buffer copy(b, 1);
    EXPECT_EQ(bytes_of(copy), (std::vector<unsigned char>{8, 9}));
    sd_buffer none(b, 3);
    EXPECT_EQ(none.data(), nullptr);
}

TEST(Buffer, LengthPrefixedStrings)
{
    sd_buffer b;
    b.append(std::string("ab"));
    b.append(std::string());
    EXPECT_EQ(bytes_of(b), (std::vector<unsigned char>{2, 0, 0, 0, 'a', 'b', 0, 0, 0, 0}));

    unsigned long off = 0;
    EXPECT_EQ(b.read_at(off), "ab");
    EXPECT_EQ(b.read_at(off), ""); // a zero length at the very end consumes 4 bytes
    EXPECT_EQ(off, 10u);

    // A length that claims more than the buffer holds reads zeros, not memory
    // behind the allocation.
    sd_buffer lying;
    lying.append(static_cast<unsigned int>(5));
    lying.append("xy", 2);
    off = 0;
    EXPECT_EQ(lying.read_at(off), std::string("xy\0\0\0", 5));
    EXPECT_EQ(off, 9u);
}

TEST(Buffer, CompressRoundTripAndFailures)
{
    sd_buffer empty, z;
    ASSERT_EQ(empty.compress_to(z), 0);
    EXPECT_FALSE(z.empty()); // an empty input is still a zlib stream

    sd_buffer src;
    for (int i = 0; i < 10000; ++i)
        src.append(static_cast<unsigned int>(i % 7));
    ASSERT_EQ(src.compress_to(z), 0);
    EXPECT_LT(z.size(), src.size());

    sd_buffer out(src.size() + 10); // capacity larger than needed
    ASSERT_EQ(z.uncompress_to(out), 0);
    EXPECT_EQ(bytes_of(out), bytes_of(src));

    sd_test::hook_counter hooks;
    sd_buffer small(src.size() - 1); // output doesn't fit
    EXPECT_EQ(z.uncompress_to(small), -1);
    EXPECT_EQ(small.size(), src.size() - 1);
    sd_buffer garbage;
    garbage.append("not zlib", 8);
    sd_buffer dst(16);
    EXPECT_EQ(garbage.uncompress_to(dst), -1);
    EXPECT_EQ(hooks.calls(), 2);
}
