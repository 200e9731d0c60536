// The library's reason to exist, measured end to end through the flat
// interface: recording one million float64 samples into each of 16 elements,
// and reading them back raw, in bulk and through a converting memory type.
// BM_ZlibBound compresses the same sample bytes alone, so the recording
// figure can be compared with what zlib at level 9 costs by itself.
#include "orva_sd.h"
#include "sd_buffer.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kElements = 16;
constexpr long kSamples = 1000000;

double sample(int e, long i)
{
    // A slowly varying signal, with a step in it now and then, like a sensor.
    return std::sin(i * 0.0005 + e) * 50.0 + double((i / 1000) % 7);
}

std::string bench_path()
{
    return "/tmp/orva_sd_bench_" + std::to_string(getpid()) + ".sdf";
}

// A simulator's loop: each step appends one sample to every element.
void record(std::string const& path)
{
    long f = sdf_create(path.c_str());
    std::vector<long> el;
    for (int e = 0; e < kElements; ++e)
        el.push_back(sde_create(f, ("sensor" + std::to_string(e)).c_str(), SDT_FLOAT64, SDE_SENSOR));
    for (long i = 0; i < kSamples; ++i)
        for (int e = 0; e < kElements; ++e) {
            double v = sample(e, i);
            sdd_append_raw_value(el[e], &v);
        }
    sdf_close(f);
}

// Records the benchmark file once; the readers share it.
std::string const& recorded_file()
{
    static std::string path = [] {
        std::string p = bench_path() + ".read";
        record(p);
        return p;
    }();
    return path;
}

void BM_Record16x1M(benchmark::State& state)
{
    std::string p = bench_path();
    for (auto _ : state)
        record(p);
    std::remove(p.c_str());
    state.SetItemsProcessed(state.iterations() * kElements * kSamples);
    state.SetBytesProcessed(state.iterations() * kElements * kSamples * 8);
}
BENCHMARK(BM_Record16x1M)->Unit(benchmark::kMillisecond)->Iterations(1);

// The same sample bytes, compressed by zlib alone in 1 MiB payloads.
void BM_ZlibBound16x1M(benchmark::State& state)
{
    std::vector<orva_sd::sd_buffer> payloads;
    for (int e = 0; e < kElements; ++e) {
        orva_sd::sd_buffer b;
        for (long i = 0; i < kSamples; ++i) {
            b.append(sample(e, i));
            if (b.size() >= (1u << 20)) {
                payloads.push_back(b);
                b.clear();
            }
        }
        payloads.push_back(b);
    }
    for (auto _ : state) {
        orva_sd::sd_buffer z;
        for (auto const& p : payloads) {
            p.compress_to(z);
            benchmark::DoNotOptimize(z.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements * kSamples);
    state.SetBytesProcessed(state.iterations() * kElements * kSamples * 8);
}
BENCHMARK(BM_ZlibBound16x1M)->Unit(benchmark::kMillisecond)->Iterations(1);

void read_all(benchmark::State& state, long mem_type, int mode)
{
    std::string const& p = recorded_file();
    long total = 0;
    for (auto _ : state) {
        long f = sdf_open(p.c_str());
        for (int e = 0; e < kElements; ++e) {
            long el = sde_find(f, ("sensor" + std::to_string(e)).c_str());
            sdd_value_iter* it = sdd_value_iter_create(el, mem_type);
            if (mode == 0) {
                double v;
                unsigned char none, end = 0;
                while (!end && sdd_value_iter_get_raw_value(it, &v, &none, &end) == 0)
                    ++total;
            } else if (mode == 1) {
                std::vector<double> buf(4096);
                std::vector<unsigned char> none(4096);
                unsigned long n;
                while ((n = sdd_value_iter_get_raw_values(it, 4096, buf.data(), none.data())) > 0) {
                    total += long(n);
                    if (n < 4096)
                        break;
                }
            } else {
                float v;
                unsigned char none, end = 0;
                while (!end && sdd_value_iter_get_raw_value(it, &v, &none, &end) == 0)
                    ++total;
            }
            sdd_value_iter_close(it);
        }
        sdf_close(f);
    }
    if (total != long(state.iterations()) * kElements * kSamples)
        state.SkipWithError("wrong number of samples read");
    state.SetItemsProcessed(total);
}

void BM_ReadRawValue16x1M(benchmark::State& state) { read_all(state, -1, 0); }
void BM_ReadRawValues16x1M(benchmark::State& state) { read_all(state, -1, 1); }
void BM_ReadConvertedToFloat32_16x1M(benchmark::State& state) { read_all(state, SDT_FLOAT32, 2); }
BENCHMARK(BM_ReadRawValue16x1M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_ReadRawValues16x1M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_ReadConvertedToFloat32_16x1M)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace
