// Reading a listing: what the parser adds to reading the lines.
#include "transfer/listing.h"

#include "bench/micro/pipes.h"
#include "bench/micro/texts.h"

#include <cstdio>

#include <benchmark/benchmark.h>

namespace {

constexpr int files = 10000;

/// Has every line of a listing read by `takeLine`, as often as the state wants.
template<typename TakeLine>
void readListing(benchmark::State& state, Peer peer, const TakeLine& takeLine) {
    const std::string text = listingOf(files);
    for (auto _ : state) {
        state.PauseTiming();
        FedPipe pipe(text, peer);
        FILE* const stream = fdopen(pipe.takeReadEnd(), "r");
        state.ResumeTiming();
        char line[1024];
        while (fgets(line, sizeof line, stream) != nullptr) {
            takeLine(line);
        }
        state.PauseTiming();
        fclose(stream);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * files);
}

void listing(benchmark::State& state, Peer peer) {
    ListingParser parser;
    std::size_t names = 0;
    readListing(state, peer, [&parser, &names](const char* line) { parser.addLine(line); });
    names = parser.takeNames().size();
    if (names != static_cast<std::size_t>(state.iterations()) * files) {
        state.SkipWithError("names are missing");
    }
}

void listingFloor(benchmark::State& state, Peer peer) {
    readListing(state, peer, [](char* line) { benchmark::DoNotOptimize(line); });
}

BENCHMARK_CAPTURE(listing, still, Peer::still);
BENCHMARK_CAPTURE(listingFloor, still, Peer::still);
BENCHMARK_CAPTURE(listing, busy, Peer::busy);
BENCHMARK_CAPTURE(listingFloor, busy, Peer::busy);

} // namespace
