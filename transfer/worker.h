// The class Worker: one detector's transfer thread, and the registry of all workers.
#pragma once

#include "log/log_file.h"
#include "transfer/file_lists.h"
#include "transfer/thread.h"

#include <atomic>
#include <set>
#include <string>
#include <vector>

class RsyncEvaluator;

/// Moves one detector's files, cycle after cycle: lists its share, runs the copy processes, has
/// their reports evaluated, keeps the PID file current. Created with `new` and never deleted while
/// the process lives. Set up by the main thread before it is started; `run` and what it calls
/// belong to the worker's own thread.
class Worker : public Thread {
public:
    /// Source and target are normalised as by setSource and setTarget; the pauses are in
    /// milliseconds. Enters the registry. Starts nothing.
    Worker(const std::string& id, const std::string& remoteAddress, const std::string& source,
           const std::string& target, int minimumPause, int interRunPause);

    /// Leaves the registry. The owner has stopped and joined the thread.
    ~Worker() override;

    /// The transfer cycle. Returns when a stop was requested and noticed.
    void run() override;

    /// Sets the directory inside the detector's share; "/" is added at either end where it lacks.
    /// Before start only.
    void setSource(const std::string& source);

    /// Sets the local target directory; unless the text holds "/." anywhere, it is made to end in
    /// "/.". Before start only.
    void setTarget(const std::string& target);

    std::string target() const;

    /// True while the cycle runs. Any thread.
    bool isRunning() const;

    /// This worker's live copy processes. Callers hold mainMutex as long as they use it.
    const std::vector<int>& pidList() const;

    /// Asks the cycle to end and, if `wait`, joins the thread. Copy processes are not ended: the
    /// request is noticed when they have ended and the cycle is back at its head. A request before
    /// the thread runs is lost. Any thread.
    void stop(bool wait);

    /// All workers of the process. Changed only while no worker runs; walked under mainMutex.
    static std::set<Worker*> workers;

protected:
    std::string detectorId;
    std::string remoteIp;
    std::string sourcePath;
    std::string targetPath;
    int minPause;      // milliseconds after a cycle that found nothing to copy
    int interrunPause; // milliseconds between the starts of two copy processes of one cycle
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> running{false};
    std::vector<int> pids;                   // guarded by mainMutex
    std::vector<RsyncEvaluator*> evaluators; // one slot for each copy process of the cycle; owned

private:
    /// One round of the cycle, from the log's rotation to the removal of the file lists.
    void cycle(const std::string& url);

    void prepareTarget() const;

    /// The transfer list; empty also when the listing failed.
    NameList listShare(const std::string& url);

    /// One list for each copy process; none if there is nothing to transfer. A caller that hands
    /// over a temporary is rid of the names, which may be many, before anything is copied.
    std::vector<FileList> writeFileLists(const NameList& names);

    void startCopyProcesses(const std::vector<FileList>& fileLists, const std::string& url);

    /// Starts the copy process and the evaluator of one slot; a failure is logged and leaves the
    /// slot empty.
    void startCopyProcess(std::size_t slot, const std::string& command);

    void logStartFailure(const char* indentation, int error);

    /// Takes slots without a process off the list and records everyone's copy processes in the PID
    /// file.
    void recordStartedProcesses();
    void waitForCopyProcesses();
    void recordEndedProcesses();

    /// Rewrites the PID file with the copy processes of all workers. To be called with mainMutex
    /// held.
    static void writePidFile();

    void finishEvaluators();
    void removeFileLists(const std::vector<FileList>& fileLists);

    LogFile log; // opened by run
};
