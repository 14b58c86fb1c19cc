// Reading lines from a descriptor, long ones in pieces.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

/// Reads text in the pieces that fgets gives with a buffer of 1,024 bytes: a line with its line
/// feed, or 1,023 bytes of a longer one, or what is left at the end. Does it in fewer and larger
/// reads, and without copying each piece. What has come is given at once: it never waits for more
/// than the piece that it gives. Used by one thread; the descriptor stays the caller's.
class PieceReader {
public:
    explicit PieceReader(int descriptorToRead) : descriptor(descriptorToRead) {}

    /// Sets `piece` to the next one, which ends before its first NUL byte and is valid until the
    /// next call. Returns false at the end of the text or when it can't be read any further.
    bool next(std::string_view& piece);

private:
    /// Reads more behind the bytes that no piece was made of yet. Returns false at the end of the
    /// text, or when reading fails, which takes these bytes away.
    bool readMore();

    int descriptor;
    std::array<char, 16384> buffer; // its bytes from `begin` to `end` are still to be given
    std::size_t begin = 0;
    std::size_t end = 0;
    bool holdsNul = false; // one of the bytes up to `end`
};
