// Dealing the names of a cycle to the copy processes' file lists.
#include "transfer/file_lists.h"

#include "bench/micro/scratch_folder.h"
#include "bench/micro/texts.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int names = 100000;
constexpr int lists = 8;

// How the lists are written.
constexpr std::size_t writeSize = 65536;

void fileLists(benchmark::State& state) {
    NameList transferList;
    for (int i = 0; i < names; ++i) {
        transferList.add(nameOf(i));
    }
    for ([[maybe_unused]] auto _ : state) {
        const std::vector<FileList> dealt = dealNames(transferList, lists);
        state.PauseTiming();
        for (const FileList& list : dealt) {
            unlink(list.name().c_str());
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * names);
}

/// The same bytes in as many calls, into as many files.
void fileListsFloor(benchmark::State& state) {
    std::string text;
    for (int i = 0; i < names / lists; ++i) {
        text += nameOf(i) + "\n";
    }
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < lists; ++i) {
            const std::string path = inScratchFolder("list_" + std::to_string(i));
            const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
            for (std::size_t begin = 0; begin < text.size(); begin += writeSize) {
                writeUnchecked(file.get(), std::string_view(text).substr(begin, writeSize));
            }
        }
        state.PauseTiming();
        for (int i = 0; i < lists; ++i) {
            unlink(inScratchFolder("list_" + std::to_string(i)).c_str());
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * names);
}

BENCHMARK(fileLists);
BENCHMARK(fileListsFloor);

} // namespace
