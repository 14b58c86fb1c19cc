// Splitting a text at blanks.
#include "bench/micro/texts.h"
#include "utilities/text.h"

#include <cstring>

#include <benchmark/benchmark.h>

namespace {

constexpr int words = 1000;

std::string manyWords() {
    std::string text;
    for (int i = 0; i < words; ++i) {
        text += nameOf(i) + " ";
    }
    return text;
}

void tokenize(benchmark::State& state) {
    const std::string text = manyWords();
    for ([[maybe_unused]] auto _ : state) {
        for (const char* const word : UTILITIES::tokenize(text, ' ')) {
            delete[] word;
        }
    }
    state.SetItemsProcessed(state.iterations() * words);
}

/// Finding the blanks.
void tokenizeFloor(benchmark::State& state) {
    const std::string text = manyWords();
    for ([[maybe_unused]] auto _ : state) {
        const char* position = text.data();
        const char* const end = position + text.size();
        int found = 0;
        while (const void* blank =
                   std::memchr(position, ' ', static_cast<std::size_t>(end - position))) {
            position = static_cast<const char*>(blank) + 1;
            ++found;
        }
        if (found != words) {
            state.SkipWithError("words are missing");
        }
    }
    state.SetItemsProcessed(state.iterations() * words);
}

BENCHMARK(tokenize);
BENCHMARK(tokenizeFloor);

} // namespace
