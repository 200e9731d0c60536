// Element trees: creating, closing and reopening files of many elements.
// Run with several sizes so that growth that is worse than linear shows.
#include "orva_sd.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

std::string tree_path(long n)
{
    return "/tmp/orva_sd_tree_" + std::to_string(getpid()) + "_" + std::to_string(n) + ".sdf";
}

// n elements: groups of 100 children below n/100 root operators.
void make_tree(std::string const& path, long n)
{
    long f = sdf_create(path.c_str());
    long group = -1;
    for (long i = 0; i < n; ++i) {
        if (i % 100 == 0)
            group = sde_create(f, ("g" + std::to_string(i / 100)).c_str(), -1, SDE_OPERATOR);
        else
            sde_create(group, ("e" + std::to_string(i)).c_str(), SDT_INT32, SDE_SENSOR);
    }
    sdf_close(f);
}

void BM_CreateTree(benchmark::State& state)
{
    std::string path = tree_path(state.range(0));
    for (auto _ : state)
        make_tree(path, state.range(0));
    std::remove(path.c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CreateTree)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_ReopenTree(benchmark::State& state)
{
    std::string path = tree_path(state.range(0));
    make_tree(path, state.range(0));
    for (auto _ : state) {
        long f = sdf_open(path.c_str());
        benchmark::DoNotOptimize(sde_get_n_children(f));
        sdf_close(f);
    }
    std::remove(path.c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReopenTree)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace
