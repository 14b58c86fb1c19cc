// Reading a copy process's report and handing its files on: what the evaluator adds to reading the
// lines and writing the records.
#include "transfer/report.h"

#include "bench/micro/pipes.h"
#include "bench/micro/scratch_folder.h"
#include "bench/micro/texts.h"
#include "daemon/global.h"
#include "transfer/rsync_evaluator.h"

#include <cstdio>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int files = 8000;
constexpr int usualLag = 32;
const std::string target = "/srv/images/.";

std::size_t sizeOf(const std::vector<std::string>& records) {
    std::size_t size = 0;
    for (const std::string& record : records) {
        size += record.size();
    }
    return size;
}

/// Has a report evaluated by `evaluate`, which takes over the end to read from and is told the path
/// of the consumer's pipe.
template<typename Evaluate>
void readReport(benchmark::State& state, int lag, Peer peer, const Evaluate& evaluate) {
    const std::string text = reportOf(files, lag);
    const std::size_t expected = sizeOf(recordsOf(files, target));
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            DrainedFifo fifo(inScratchFolder("fifo"), peer);
            FedPipe pipe(text, peer);
            const int readEnd = pipe.takeReadEnd();
            state.ResumeTiming();
            evaluate(readEnd, fifo.path());
            state.PauseTiming();
            if (fifo.drain() != expected) {
                state.SkipWithError("records are missing");
            }
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 2 * files);
}

void report(benchmark::State& state, int lag, Peer peer) {
    GLOBAL::logFileName = inScratchFolder("report.log");
    readReport(state, lag, peer, [](int readEnd, const std::string& fifoPath) {
        GLOBAL::pathToVantrelFifo = fifoPath;
        RsyncEvaluator(readEnd, target).run();
    });
    unlink(GLOBAL::logFileName.c_str());
}

void reportFloor(benchmark::State& state, int lag, Peer peer) {
    const std::vector<std::string> records = recordsOf(files, target);
    readReport(state, lag, peer, [&records](int readEnd, const std::string& fifoPath) {
        FILE* const stream = fdopen(readEnd, "r");
        const Descriptor fifo(open(fifoPath.c_str(), O_WRONLY | O_CLOEXEC));
        auto record = records.begin();
        char line[1024];
        while (fgets(line, sizeof line, stream) != nullptr) {
            if (line[0] == 'C') {
                writeUnchecked(fifo.get(), *record++);
            }
        }
        fclose(stream);
    });
}

constexpr int allAtTheEnd = files;
BENCHMARK_CAPTURE(report, still, usualLag, Peer::still);
BENCHMARK_CAPTURE(reportFloor, still, usualLag, Peer::still);
BENCHMARK_CAPTURE(report, still_all_at_the_end, allAtTheEnd, Peer::still);
BENCHMARK_CAPTURE(reportFloor, still_all_at_the_end, allAtTheEnd, Peer::still);
BENCHMARK_CAPTURE(report, busy, usualLag, Peer::busy);
BENCHMARK_CAPTURE(reportFloor, busy, usualLag, Peer::busy);

/// The reader alone, without the hand-off.
void reportLines(benchmark::State& state) {
    const std::string text = reportOf(files, usualLag);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        FedPipe pipe(text, Peer::still);
        FILE* const stream = fdopen(pipe.takeReadEnd(), "r");
        state.ResumeTiming();
        char line[1024];
        while (fgets(line, sizeof line, stream) != nullptr) {
            benchmark::DoNotOptimize(parseReportLine(line));
        }
        state.PauseTiming();
        fclose(stream);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 2 * files);
}

void reportLinesFloor(benchmark::State& state) {
    const std::string text = reportOf(files, usualLag);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        FedPipe pipe(text, Peer::still);
        FILE* const stream = fdopen(pipe.takeReadEnd(), "r");
        state.ResumeTiming();
        char line[1024];
        while (fgets(line, sizeof line, stream) != nullptr) {
            benchmark::DoNotOptimize(line[0]);
        }
        state.PauseTiming();
        fclose(stream);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 2 * files);
}

BENCHMARK(reportLines);
BENCHMARK(reportLinesFloor);

} // namespace
