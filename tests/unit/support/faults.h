// System calls that a test lets fail, and those that it counts.
#pragma once

#include <atomic>
#include <vector>

/// The code under test calls the functions named here through stand-ins (the linker's --wrap),
/// which normally just pass the call on. A test may let exactly one chosen call fail. Resource
/// limits, the other way to make them fail, hit whatever comes next in any thread (the log's open,
/// the listing's pipe) and do not bind root; with them the second of three forks can't be singled
/// out.
namespace FAULTS {

/// Lets one call of a function fail.
class Fault {
public:
    /// From now on, the call after `callsToPass` further ones fails with `error`, all others
    /// succeed.
    void failAfter(int callsToPass, int error);

    void clear();

    /// For the stand-in: the error with which this call is to fail, or 0. Any thread.
    int next();

private:
    std::atomic<int> callsLeft{-1}; // calls to pass before the one that fails; negative: none fails
    std::atomic<int> errorNumber{0};
};

extern Fault fork;
extern Fault setsid;
extern Fault chdir;
extern Fault pipe2;
extern Fault popen;
extern Fault pthreadCreate;
extern Fault syscall; // of close_range alone
extern Fault write;

/// The lowest descriptor that was free in any call of system and popen since `clear`: what another
/// thread opened in that moment would have got it, and the child inherited it.
extern std::atomic<int> lowestFreeAtSystem;
extern std::atomic<int> lowestFreeAtPopen;

/// The same for the starts of threads: what the starting thread opens between two of them gets it.
extern std::atomic<int> lowestFreeAtThreadStart;

/// Lets every call succeed again, and forgets what was noted.
void clear();

/// One call of nanosleep.
struct Sleep {
    long seconds;
    long nanoseconds;
};

/// While it exists, the calling thread's sleeps are recorded, and only looked at: they return at
/// once, as having slept to the end.
class SleepRecorder {
public:
    SleepRecorder();
    ~SleepRecorder();
    SleepRecorder(const SleepRecorder&) = delete;
    SleepRecorder& operator=(const SleepRecorder&) = delete;

    const std::vector<Sleep>& sleeps() const;
};

/// Like SleepRecorder, but the thread really sleeps.
class SleepWatcher {
public:
    SleepWatcher();
    ~SleepWatcher();
    SleepWatcher(const SleepWatcher&) = delete;
    SleepWatcher& operator=(const SleepWatcher&) = delete;

    const std::vector<Sleep>& sleeps() const;
};

} // namespace FAULTS
