// Rewriting the PID file with eight copy processes in it.
#include "utilities/pid_file.h"

#include "bench/micro/scratch_folder.h"
#include "utilities/descriptors.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

const std::vector<int> pids = {10001, 10002, 10003, 10004, 10005, 10006, 10007, 10008};

void pidFile(benchmark::State& state) {
    const std::string path = inScratchFolder("pid");
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(UTILITIES::setPidFile(path, pids));
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

void writeLines(int descriptor) {
    for (std::size_t i = 0; i <= pids.size(); ++i) {
        writeUnchecked(descriptor, "10001\n");
    }
}

/// The same number of write calls.
void pidFileFloor(benchmark::State& state) {
    const std::string path = inScratchFolder("pid");
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    for ([[maybe_unused]] auto _ : state) {
        writeLines(file.get());
        state.PauseTiming();
        lseek(file.get(), 0, SEEK_SET);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

/// The same, with the file opened and emptied for each.
void pidFileFloorOpened(benchmark::State& state) {
    const std::string path = inScratchFolder("pid");
    for ([[maybe_unused]] auto _ : state) {
        const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        writeLines(file.get());
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

BENCHMARK(pidFile);
BENCHMARK(pidFileFloor);
BENCHMARK(pidFileFloorOpened);

} // namespace
