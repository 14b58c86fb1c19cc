// The report's way out: what waits to be written to one descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace confirming {

/// Holds report text until the reader takes it, in twice the memory at most. Never waits: whoever
/// owns it polls the descriptor and calls write() when there is room. SIGPIPE has to be ignored.
class ReportWriter {
public:
    /// Does not own the descriptor, whose flags stay as they are.
    explicit ReportWriter(int descriptor) : descriptor_(descriptor) {}

    int descriptor() const { return descriptor_; }

    void add(std::string_view text);

    /// Bytes that wait.
    std::size_t pending() const { return text_.size() - written_; }

    /// Bytes that the reader's pipe has taken so far.
    std::uint64_t written() const { return total_; }

    /// Writes the next bytes: whole lines, as many as a pipe takes at once, so that an end of the
    /// program never leaves half a line there. A line that is longer than that goes in pieces. To
    /// be called when the descriptor is ready for writing, else it may wait for the reader.
    void write();

    /// The reader is gone: everything that waits or comes is thrown away.
    void giveUp();
    bool hasGivenUp() const { return givenUp_; }

private:
    int descriptor_;
    std::string text_;
    std::size_t written_ = 0; // of text_
    std::uint64_t total_ = 0;
    bool givenUp_ = false;
};

} // namespace confirming
