// File descriptors in a process whose standard input, output and error are closed.
#pragma once

#include <string_view>

#include <pthread.h>
#include <sys/types.h>

/// Mode of the PID file and the status file. The daemon's umask is 0, so every file says its mode.
constexpr mode_t controlFileMode = 0644;

/// Owns a file descriptor and closes it; a negative one (a failed open) is none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int owned) : descriptor(owned) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : descriptor(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    /// The descriptor, still owned; negative if there is none.
    int get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

    /// Hands the descriptor to the caller, who closes it.
    int release();

    /// Closes the descriptor, if there is one.
    void reset();

private:
    int descriptor = -1;
};

/// Takes over `descriptor` as it came from open or pipe and returns it as one that is 3 or above
/// and closed on exec, closing the original if it had to move. Every descriptor that outlives a
/// function goes through here: the daemon runs with 0 to 2 closed, so that a new one may be any of
/// these, where it would be taken for "no pipe" (0), get a child's complaints (2), or be in the way
/// of a child's own 1 and 2. A failed open (-1) is passed through with errno as it is. If no other
/// descriptor can be had, the result is -1, and the original is closed.
int moveAboveStandard(int descriptor);

/// Writes `text` with one call. The result is not examined: a short or failed write is survived in
/// silence.
void writeUnchecked(int descriptor, std::string_view text);

/// Writes the whole of `text`, in as many calls as it takes. Returns false, errno set, when a call
/// fails.
bool writeAll(int descriptor, std::string_view text);

/// While at least one of these exists, no descriptor that the daemon opens comes out as 0, 1 or 2,
/// and a child that is started has these three closed. What is free of them is held by placeholders
/// that no child inherits and nothing can be read from or written to; the last shield to go gives
/// them back. To be used around every start of a child through `system` or `popen`, which inherits
/// whatever other threads happen to have open: without it the complaint of a failing "mkdir" could
/// land in the consumer's pipe, the PID file or a file list. Also used around the opening of the
/// consumer's pipe, which may block for long, and by the main thread, whose log has no mutex, while
/// it starts the workers.
///
/// The mutex guards the count of shields and is held while the placeholders are taken and given
/// back; with the mutex under which the log and the PID file are written, none of these is open at
/// that moment.
class StandardDescriptorsShield {
public:
    explicit StandardDescriptorsShield(pthread_mutex_t* guardingMutex);
    ~StandardDescriptorsShield();
    StandardDescriptorsShield(const StandardDescriptorsShield&) = delete;
    StandardDescriptorsShield& operator=(const StandardDescriptorsShield&) = delete;

private:
    pthread_mutex_t* mutex;
};
