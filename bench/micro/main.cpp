// Starts the micro-benchmarks: skarn_micro_bench --folder=DIR [options of Google Benchmark].
#include "bench/micro/scratch_folder.h"

#include <cstdio>
#include <cstring>

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    constexpr const char* option = "--folder=";
    const std::size_t length = std::strlen(option);
    if (argc != 2 || std::strncmp(argv[1], option, length) != 0) {
        std::fputs("usage: skarn_micro_bench --folder=DIR [options of Google Benchmark]\n", stderr);
        return 2;
    }
    setScratchFolder(argv[1] + length);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
