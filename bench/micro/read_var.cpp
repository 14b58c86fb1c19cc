// Looking a key up in a large configuration text.
#include "utilities/text.h"

#include <benchmark/benchmark.h>

namespace {

constexpr std::size_t textSize = 1 << 20;

const std::string keyLine = "logfile_max_number 42\n";

std::string otherLines() {
    std::string text;
    while (text.size() < textSize) {
        text += "detector_or_other_key some value that is not asked for\n";
    }
    return text;
}

void readVarOf(benchmark::State& state, const std::string& text) {
    for ([[maybe_unused]] auto _ : state) {
        int value = 0;
        if (!UTILITIES::readVar(text, "logfile_max_number", value) || value != 42) {
            state.SkipWithError("not found");
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void readVarLast(benchmark::State& state) {
    readVarOf(state, otherLines() + keyLine);
}

void readVarFirst(benchmark::State& state) {
    readVarOf(state, keyLine + otherLines());
}

/// One look at every byte, for one that is not there.
void readVarFloor(benchmark::State& state) {
    const std::string text = otherLines() + keyLine;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(text.find('\1')); // that is memchr
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(readVarLast);
BENCHMARK(readVarFirst);
BENCHMARK(readVarFloor);

} // namespace
