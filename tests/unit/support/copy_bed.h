// What the transfer cycle needs around it: a scripted copy program, listings, and running workers.
#pragma once

#include "tests/unit/support/open_worker.h"
#include "tests/unit/support/settings_test.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A bed in which workers run. The copy program is a script: called for a listing it prints, once,
/// what the test serves for that address, and nothing the next time; called for a copy it runs what
/// the test gave as the copy's body, with $list set to its file list and $bed to the scratch
/// directory. By default that body announces and confirms every name. Workers are stopped at the
/// end of the test.
class CopyBed : public SettingsTest {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Serves a listing of these names, once.
    void serve(const std::vector<std::string>& names, const std::string& address = "127.0.0.1");

    /// Serves these lines as they are.
    void serveText(const std::string& text, const std::string& address = "127.0.0.1");

    /// What a copy process does; shell commands.
    void copyBody(const std::string& commands);

    /// How often the share of this address was listed.
    std::size_t listings(const std::string& address = "127.0.0.1") const;

    /// A worker of the bed. It belongs to the registry; the end of the test deletes it.
    OpenWorker& makeWorker(const std::string& id = "1", const std::string& address = "127.0.0.1",
                           int minPause = 1, int interrunPause = 0);

    /// Starts a worker and waits until it has listed its share for the first time, so that a
    /// request to stop isn't lost.
    void startAndAwait(OpenWorker& worker, const std::string& address = "127.0.0.1");

    /// Stops and joins a worker that was started.
    void stopAndJoin(OpenWorker& worker);

    /// Runs a worker on the calling thread until `condition` holds, which must not be before it has
    /// listed its share.
    static void runUntil(OpenWorker& worker, const std::function<bool()>& condition);

    /// Waits until the worker's log holds this many lines about removed file lists, the last thing
    /// that a copying cycle logs.
    bool awaitRemovedLists(std::size_t count) const;

    std::string logText() const { return readFile(logPath); }
    std::string pidFile() const { return readFile("/var/run/skarn_orbelin.pid"); }

    /// n names: prefix0, prefix1, …
    static std::vector<std::string> numbered(const std::string& prefix, int n);

    const std::string logPath = scratch / "log";
    const std::string targetPath = scratch / "target";
    static constexpr const char* separator =
        "++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++\n ++++\n";
    /// Loop that holds a copy process until the test makes the file "go".
    static constexpr const char* holdUntilGo =
        "i=0; while [ ! -e $bed/go ] && [ $i -lt 6000 ]; do sleep 0.01; i=$((i + 1)); done\n";

private:
    std::vector<OpenWorker*> started;
};
