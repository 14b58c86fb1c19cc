// Lines from a stream of bytes that arrives in pieces of any size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// One piece of a stream. Most pieces are a whole line: they begin and end it.
struct LinePiece {
    std::string text;   // without the line feed
    bool begins = true; // the line's first byte is the piece's first
    bool ends = true;   // a line feed followed
};

/// Cuts a stream into lines. A line that grows beyond the limit comes in pieces of exactly `limit`
/// bytes, so that memory stays bounded and the result does not depend on how the bytes arrived.
class LineAssembly {
public:
    /// The daemon reads its copy program's report in lines of up to 1,023 bytes, and takes what is
    /// beyond for lines of their own. A piece fits, a few bytes before it and the line feed
    /// included. Names that the daemon deals with are shorter still: it cuts listings likewise.
    static constexpr std::size_t limit = 1015;

    /// Takes the next bytes of the stream; appends to `pieces` what is complete by now.
    void take(std::string_view bytes, std::vector<LinePiece>& pieces);

    /// The stream has ended: appends what is left without a line feed, if anything.
    void finish(std::vector<LinePiece>& pieces);

private:
    void put(bool ends, std::vector<LinePiece>& pieces);

    std::string pending_;
    bool begins_ = true;
};

} // namespace confirming
