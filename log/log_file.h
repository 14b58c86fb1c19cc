// The log: text is collected in memory and appended to a file that is never held open.
#pragma once

#include "utilities/text_buffer.h"

#include <charconv>
#include <cstdint>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include <pthread.h>

/// One component's handle on the shared log file. Insertions collect text; `endl`, `flush` and
/// `close` append what was collected in one write. The file is opened and closed at every
/// write-out, so that a rotation or an operator may move it away at any moment: the next write-out
/// creates a fresh one.
///
/// LogFile adds nothing to the text but the line feed of `endl`. An object is used by one thread
/// only; the mutex its owner hands in (null: none; never owned) guards the file among all the
/// objects that name it. A thread that holds the mutex may write out too, since the mutex is a
/// recursive one. Write-outs report no failure: what can't be written is dropped.
class LogFile {
public:
    /// An unnamed log: everything written out before `open` is dropped. Touches no file.
    explicit LogFile(pthread_mutex_t* fileMutex);

    /// A log on the file `name`, probed as by `open`.
    LogFile(const std::string& name, pthread_mutex_t* fileMutex);

    /// Discards text that was not written out.
    ~LogFile() = default;

    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Replaces the mutex. Not to be called while another thread uses this object.
    void setMutex(pthread_mutex_t* fileMutex);

    /// Names the file, creates it if it is missing, sets the mode of a regular file to 0644 and
    /// discards text inserted before. On failure only `openFailed` is set.
    LogFile& open(const std::string& name);

    /// Appends the text form of `value` to what is collected: a character, text up to its
    /// terminating NUL (a null pointer appends nothing), a std::string with all its bytes, or
    /// whatever a default stream prints.
    template<typename T>
    LogFile& operator<<(const T& value) {
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
            buffer.append(value);
        } else if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* text = value;
            if (text != nullptr) {
                buffer.append(text);
            }
        } else if constexpr (std::is_same_v<T, char>) {
            buffer.append({&value, 1});
        } else if constexpr (std::is_same_v<T, int>) {
            char digits[std::numeric_limits<int>::digits10 + 2]; // one more, and a sign
            const char* const end = std::to_chars(std::begin(digits), std::end(digits), value).ptr;
            buffer.append({digits, static_cast<std::size_t>(end - digits)});
        } else {
            // A stream of its own for each value: a failed one must not silence those that follow.
            std::ostringstream stream;
            stream << value;
            buffer.append(stream.str());
        }
        return *this;
    }

    /// Applies a manipulator: `endl` or `flush`.
    LogFile& operator<<(LogFile& (*manipulator)(LogFile&));

    /// Ends the line and writes out what is collected.
    LogFile& endl();

    /// Writes out what is collected, which may be nothing (the file is created all the same).
    LogFile& flush();

    /// Clears `openFailed` and writes out what is collected. The object stays usable.
    void close();

    /// Appends `text` to the file at once, past the collected text and without a line ending. For a
    /// long text that need not be copied.
    void log(const std::string& text);

    /// Size of the file in bytes; 0 when it can't be opened. To be called with the mutex held.
    std::uint64_t fileSize() const;

    /// Renames name.N-1 to name.N and so on down to name.0 to name.1, where N is `highestNumber`,
    /// then the file itself to name.0. Failures (missing archives above all) are ignored. To be
    /// called with the mutex held.
    void rotate(int highestNumber);

    /// Under the mutex: rotates if the file is larger than `maxSize` bytes. The limit is widened
    /// with its sign and compared unsigned: 0 rotates any non-empty file, a negative limit never
    /// rotates.
    void tryRotate(int maxSize, int highestNumber);

    /// Writes out what is collected, then appends the content of the file at `path` up to its first
    /// NUL byte, in one write. A file that can't be opened appends nothing.
    void logFromFile(const std::string& path);

private:
    /// Creates the file if it is missing and sets its mode if it is a regular one; sets
    /// `openFailed` if that can't be done.
    void probe();

    /// Appends `text` to the file in one write, under the mutex. The descriptor is held for that
    /// write alone.
    void append(std::string_view text) const;

    /// Appends what is collected and forgets it.
    void writeOut();

    pthread_mutex_t* mutex;
    std::string fileName;
    TextBuffer buffer;

public:
    /// True when the last probe of the file (`open`, two-argument constructor) could not open it
    /// for appending.
    bool openFailed = false;
};

/// Manipulators for the end of an insertion chain; the same as the members of these names.
LogFile& endl(LogFile& logFile);
LogFile& flush(LogFile& logFile);
