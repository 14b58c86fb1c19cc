// The log: inserting lines piece by piece, and writing them out.
#include "log/log_file.h"

#include "bench/micro/scratch_folder.h"
#include "utilities/descriptors.h"

#include <cstdint>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Fewer bytes than the log keeps room for between two write-outs.
constexpr int linesCollected = 600;

const std::string detector = "detector_1";
const std::string fileList = "/tmp/file_list_12345_-1234567890_7";

void insertTexts(LogFile& log, int /*number*/) {
    log << detector << ": Error: could not remove " << fileList << "\n"
        << "   "
        << "No such file or directory";
}

const std::string texts =
    detector + ": Error: could not remove " + fileList + "\n   No such file or directory";

void insertTextsAndNumber(LogFile& log, int number) {
    log << detector << ": Child process " << number << " terminated \n"
        << detector << ": Removed file";
}

const std::string textsAndNumber =
    detector + ": Child process 12345 terminated \n" + detector + ": Removed file";

/// Lines of six pieces each. The log has no file, so that forgetting what was
/// collected costs two failing system calls for all the lines together, outside the clock.
template<void (*insert)(LogFile&, int)>
void logInsertion(benchmark::State& state) {
    int number = 12345;
    benchmark::DoNotOptimize(number);
    LogFile log(nullptr);
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < linesCollected; ++i) {
            insert(log, number);
        }
        state.PauseTiming();
        log.flush();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * linesCollected);
}

void logInsertionFloor(benchmark::State& state, const std::string& line) {
    std::string collected;
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < linesCollected; ++i) {
            collected.append(line);
            benchmark::ClobberMemory();
        }
        state.PauseTiming();
        collected.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * linesCollected);
}

BENCHMARK(logInsertion<insertTexts>)->Name("logInsertion/texts");
BENCHMARK_CAPTURE(logInsertionFloor, texts, texts);
BENCHMARK(logInsertion<insertTextsAndNumber>)->Name("logInsertion/texts_and_number");
BENCHMARK_CAPTURE(logInsertionFloor, texts_and_number, textsAndNumber);

void logWriteOut(benchmark::State& state) {
    const std::string path = inScratchFolder("written.log");
    LogFile log(path, nullptr);
    for ([[maybe_unused]] auto _ : state) {
        log << texts << endl;
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

/// The same number of write calls.
void logWriteOutFloor(benchmark::State& state) {
    const std::string path = inScratchFolder("written.log");
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const std::string line = texts + "\n";
    for ([[maybe_unused]] auto _ : state) {
        writeUnchecked(file.get(), line);
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

/// The same, with the file opened for each, since the log is never held open.
void logWriteOutFloorOpened(benchmark::State& state) {
    const std::string path = inScratchFolder("written.log");
    const std::string line = texts + "\n";
    for ([[maybe_unused]] auto _ : state) {
        const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        writeUnchecked(file.get(), line);
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

BENCHMARK(logWriteOut);
BENCHMARK(logWriteOutFloor);
BENCHMARK(logWriteOutFloorOpened);

} // namespace
