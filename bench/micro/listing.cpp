// Reading a listing: what the parser adds to reading the lines.
#include "transfer/listing.h"

#include "bench/micro/pipes.h"
#include "bench/micro/texts.h"

#include <cstdio>

#include <benchmark/benchmark.h>

namespace {

constexpr int files = 10000;

/// Has a listing read by `read`, which takes over the end to read from, as often as the state
/// wants.
template<typename Read>
void readListings(benchmark::State& state, Peer peer, const Read& read) {
    const std::string text = listingOf(files);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            FedPipe pipe(text, peer);
            FILE* const stream = fdopen(pipe.takeReadEnd(), "r");
            state.ResumeTiming();
            const int lines = read(stream);
            state.PauseTiming();
            fclose(stream);
            if (lines != files) {
                state.SkipWithError("lines are missing");
            }
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * files);
}

void listing(benchmark::State& state, Peer peer) {
    readListings(state, peer,
                 [](FILE* stream) { return static_cast<int>(readListing(fileno(stream)).size()); });
}

void listingFloor(benchmark::State& state, Peer peer) {
    readListings(state, peer, [](FILE* stream) {
        int lines = 0;
        char line[1024];
        while (fgets(line, sizeof line, stream) != nullptr) {
            ++lines;
        }
        return lines;
    });
}

BENCHMARK_CAPTURE(listing, still, Peer::still);
BENCHMARK_CAPTURE(listingFloor, still, Peer::still);
BENCHMARK_CAPTURE(listing, busy, Peer::busy);
BENCHMARK_CAPTURE(listingFloor, busy, Peer::busy);

} // namespace
