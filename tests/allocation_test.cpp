// The hot paths allocate nothing per sample: recording raw values, reading
// them raw or converted, and seeking over values of a fixed size (which must
// not decode each value into an object). Allocations are counted through a
// replacement of the global operator new, which the library's calls reach
// through the dynamic symbol table.
#include "orva_sd.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

static std::atomic<long> g_news{0};

void* operator new(std::size_t n)
{
    ++g_news;
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

constexpr int kValues = 100000; // one block's worth, below the flush size

TEST(Allocation, NoneOnThePerSamplePaths)
{
    std::string path = sd_test::temp_path("alloc.sdf");
    long f = sdf_create(path.c_str());
    long e = sde_create(f, "x", SDT_FLOAT64, SDE_SENSOR);
    double v = 0;
    sdd_append_raw_value(e, &v); // opens the run
    long before = g_news;
    for (int i = 1; i < kValues; ++i) {
        v = i * 0.5;
        ASSERT_EQ(sdd_append_raw_value(e, &v), 0);
    }
    EXPECT_EQ(g_news - before, 0) << "recording";
    ASSERT_EQ(sdf_close(f), 0);

    before = g_news;
    f = sdf_open(path.c_str());
    e = sde_find(f, "x");
    ASSERT_GT(g_news - before, 0) << "the counter must see the library's allocations";
    for (long mem_type : {-1L, long(SDT_FLOAT32)}) {
        sdd_value_iter* it = sdd_value_iter_create(e, mem_type);
        double d = 0;
        float fl = 0;
        void* dst = mem_type == -1 ? static_cast<void*>(&d) : static_cast<void*>(&fl);
        unsigned char none = 0, end = 0;
        before = g_news;
        int n = 0;
        while (!end && sdd_value_iter_get_raw_value(it, dst, &none, &end) == 0)
            ++n;
        EXPECT_EQ(n, kValues);
        EXPECT_EQ(g_news - before, 0) << "reading, memory type " << mem_type;
        EXPECT_EQ(mem_type == -1 ? d : fl, (kValues - 1) * 0.5);

        // Seeking over fixed-size values skips them without making objects.
        ASSERT_EQ(sdd_value_iter_restart(it), 0);
        before = g_news;
        EXPECT_EQ(sdd_value_iter_seek(it, kValues - 2), 0);
        EXPECT_EQ(g_news - before, 0) << "seeking";
        ASSERT_EQ(sdd_value_iter_get_raw_value(it, dst, &none, &end), 0);
        EXPECT_EQ(mem_type == -1 ? d : fl, (kValues - 2) * 0.5);
        sdd_value_iter_close(it);
    }
    sdf_close(f);
}

} // namespace
