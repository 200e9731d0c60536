// Throughput of the byte buffer: small appends (the record path) and the
// zlib step at the block size the store flushes at.
#include "sd_buffer.h"

#include <benchmark/benchmark.h>

#include <cmath>

using orva_sd::sd_buffer;

static void BM_BufferAppendU64(benchmark::State& state)
{
    sd_buffer b;
    for (auto _ : state) {
        b.clear();
        for (unsigned long i = 0; i < 4096; ++i)
            b.append(i);
        benchmark::DoNotOptimize(b.data());
    }
    state.SetBytesProcessed(state.iterations() * 4096 * 8);
}
BENCHMARK(BM_BufferAppendU64);

static void BM_BufferAppendBytes(benchmark::State& state)
{
    sd_buffer b;
    unsigned char sample[24] = {1, 2, 3};
    for (auto _ : state) {
        b.clear();
        for (int i = 0; i < 4096; ++i)
            b.append(sample, sizeof sample);
        benchmark::DoNotOptimize(b.data());
    }
    state.SetBytesProcessed(state.iterations() * 4096 * sizeof sample);
}
BENCHMARK(BM_BufferAppendBytes);

// 1 MiB of float64 samples of a slowly varying signal, as a block payload.
static sd_buffer signal_payload()
{
    sd_buffer b;
    for (int i = 0; i < (1 << 17); ++i)
        b.append(std::sin(i * 0.001) * 100.0);
    return b;
}

static void BM_BufferCompress1MiB(benchmark::State& state)
{
    sd_buffer src = signal_payload(), dst;
    for (auto _ : state) {
        src.compress_to(dst);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(state.iterations() * src.size());
    state.counters["ratio"] = double(dst.size()) / double(src.size());
}
BENCHMARK(BM_BufferCompress1MiB)->Unit(benchmark::kMillisecond);

static void BM_BufferUncompress1MiB(benchmark::State& state)
{
    sd_buffer src = signal_payload(), z;
    src.compress_to(z);
    for (auto _ : state) {
        sd_buffer out(src.size());
        z.uncompress_to(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * src.size());
}
BENCHMARK(BM_BufferUncompress1MiB)->Unit(benchmark::kMillisecond);
