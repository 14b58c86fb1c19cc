// Lines from a stream of bytes that arrives in pieces of any size.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace confirming {

/// One piece of a stream. Most pieces are a whole line: they begin and end it.
struct LinePiece {
    std::string_view text; // without the line feed; valid only while the piece is handed on
    bool begins = true;    // the line's first byte is the piece's first
    bool ends = true;      // a line feed followed
};

/// Cuts a stream into lines. A line that grows beyond the limit comes in pieces of exactly `limit`
/// bytes, so that memory stays bounded and the result does not depend on how the bytes arrived.
class LineAssembly {
public:
    /// The daemon reads its copy program's report in lines of up to 1,023 bytes, and takes what is
    /// beyond for lines of their own. A piece fits, a few bytes before it and the line feed
    /// included. Names that the daemon deals with are shorter still: it cuts listings likewise.
    static constexpr std::size_t limit = 1015;

    using Sink = std::function<void(const LinePiece&)>;

    /// Takes the next bytes of the stream; hands on what is complete by now.
    void take(std::string_view bytes, const Sink& sink);

    /// The stream has ended: hands on what is left without a line feed, if anything.
    void finish(const Sink& sink);

private:
    void put(bool ends, const Sink& sink);

    std::string pending_;
    bool begins_ = true;
};

} // namespace confirming
