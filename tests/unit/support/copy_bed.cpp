// What the transfer cycle needs around it: a scripted copy program, listings, and running workers.
#include "tests/unit/support/copy_bed.h"

#include "daemon/global.h"
#include "tests/unit/support/waiting.h"

#include <algorithm>
#include <cstdio>
#include <thread>

namespace {

// The fifth argument of a listing is the share's address: rsync://root@ADDRESS:PORT/...
const char* const script = R"(
case $1 in
-m*)
    address=${5#*@}
    address=${address%%:*}
    echo "$*" >>$bed/listings.$address
    if mv $bed/serve.$address $bed/served.$address 2>/dev/null; then
        wc -l <$bed/listings.$address >$bed/served_at
        cat $bed/served.$address
    fi
    ;;
*)
    for argument; do
        case $argument in --files-from=*) list=${argument#*=} ;; esac
    done
    . $bed/body
    ;;
esac
)";

const char* const confirmAll = R"(
while read -r name; do
    echo "SENT: $name"
    echo "CONFIRMED: removed $name"
done <$list
)";

} // namespace

void CopyBed::SetUp() {
    SettingsTest::SetUp();
    GLOBAL::logFileName = logPath;
    GLOBAL::passwordFile = scratch / "secret";
    GLOBAL::rsyncCommand = scratch / "copy";
    GLOBAL::numberOfProcesses = 8;
    writeFile(GLOBAL::passwordFile, "secret\n");
    copyBody(confirmAll);
    writeScript(GLOBAL::rsyncCommand, "bed=" + scratch.path() + script);
}

void CopyBed::TearDown() {
    // What holds copy processes is let go.
    writeFile(scratch / "go", "");
    while (!started.empty()) {
        stopAndJoin(*started.back());
    }
    SettingsTest::TearDown();
}

void CopyBed::serve(const std::vector<std::string>& names, const std::string& address) {
    std::string text;
    for (const std::string& name : names) {
        text += "-rw-r--r--          1,024 2026/01/02 03:04:05 " + name + "\n";
    }
    serveText(text, address);
}

void CopyBed::serveText(const std::string& text, const std::string& address) {
    const std::string path = scratch / ("serve." + address);
    writeFile(path + ".being_written", text);
    rename((path + ".being_written").c_str(), path.c_str());
}

void CopyBed::copyBody(const std::string& commands) {
    writeFile(scratch / "body", commands);
}

std::size_t CopyBed::listings(const std::string& address) const {
    return countOf(readFile(scratch / ("listings." + address)), "\n");
}

OpenWorker& CopyBed::makeWorker(const std::string& id, const std::string& address, int minPause,
                                int interrunPause) {
    return *new OpenWorker(id, address, "/data/", targetPath, minPause, interrunPause);
}

void CopyBed::startAndAwait(OpenWorker& worker, const std::string& address) {
    const std::size_t before = listings(address);
    ASSERT_EQ(worker.start(), 0);
    started.push_back(&worker);
    ASSERT_TRUE(waitUntil([&] { return listings(address) > before; }));
}

void CopyBed::stopAndJoin(OpenWorker& worker) {
    worker.stop(true);
    started.erase(std::remove(started.begin(), started.end(), &worker), started.end());
}

void CopyBed::runUntil(OpenWorker& worker, const std::function<bool()>& condition) {
    std::thread stopper([&] {
        EXPECT_TRUE(waitUntil(condition));
        worker.stop(false);
    });
    worker.run();
    stopper.join();
}

bool CopyBed::awaitRemovedLists(std::size_t count) const {
    return waitUntil([&] { return countOf(logText(), ": Removed file ") >= count; });
}

std::vector<std::string> CopyBed::numbered(const std::string& prefix, int n) {
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        names.push_back(prefix + std::to_string(i));
    }
    return names;
}
