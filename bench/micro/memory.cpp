// The memory that the names of a listing take, at the most while it is read and once it has been
// read.
//
// Each measurement has a process of its own. The peak is that of the memory resident (VmHWM), which
// counts what growing text leaves behind in the heap; what is retained is what the heap has given
// out (mallinfo2), with all that it reserved for it.
#include "bench/micro/texts.h"
#include "transfer/listing.h"
#include "utilities/descriptors.h"

#include <fstream>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Usage {
    double peak = 0; // bytes
    double retained = 0;
    std::size_t names = 0;
};

/// A field of this process's status that is given in kilobytes, in bytes.
double statusField(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        double kilobytes = 0;
        if (word == field && status >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    return 0;
}

double heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

/// Reads a listing and says what it took.
Usage parseListing(int files) {
    // What was freed before could be used again unnoticed, and a peak of that time is not meant.
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
    ListingParser parser;
    const double residentBefore = statusField("VmRSS:");
    const double heapBefore = heapInUse();
    for (int i = 0; i < files; ++i) {
        parser.addLine(listingLineOf(i));
    }
    Usage usage;
    usage.peak = statusField("VmHWM:") - residentBefore;
    usage.retained = heapInUse() - heapBefore;
    usage.names = parser.takeNames().size();
    return usage;
}

void listingMemory(benchmark::State& state) {
    const int files = static_cast<int>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        int ends[2];
        if (pipe(ends) != 0) {
            state.SkipWithError("no pipe");
            return;
        }
        const Descriptor readEnd(ends[0]);
        const Descriptor writeEnd(ends[1]);
        const pid_t child = fork();
        if (child == 0) {
            const Usage usage = parseListing(files);
            const ssize_t written = write(writeEnd.get(), &usage, sizeof usage);
            _exit(written == static_cast<ssize_t>(sizeof usage) ? 0 : 1);
        }
        Usage usage;
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0 ||
            read(readEnd.get(), &usage, sizeof usage) != static_cast<ssize_t>(sizeof usage) ||
            usage.names != static_cast<std::size_t>(files)) {
            state.SkipWithError("the measuring process failed");
            return;
        }
        state.counters["peak_bytes_a_name"] = usage.peak / files;
        state.counters["retained_bytes_a_name"] = usage.retained / files;
    }
}

BENCHMARK(listingMemory)
    ->Arg(10000)
    ->Arg(30000)
    ->Arg(100000)
    ->Arg(300000)
    ->Arg(1000000)
    ->Iterations(1);

} // namespace
