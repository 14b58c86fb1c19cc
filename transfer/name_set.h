// Names that are waited for, kept so that a report on a million files does no harm.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A set of names. They are kept in one text, and a table says where each begins: memory of its own
/// for every name would take most of the time and twice the memory. A name must not be empty or
/// hold a NUL byte.
class NameSet {
public:
    /// Takes the name in, unless it is there already.
    void insert(std::string_view name);

    /// Takes the name out, if it is there.
    void erase(std::string_view name);

    /// The names in the order of their bytes, valid until the set changes.
    std::vector<std::string_view> sorted() const;

private:
    /// Where a name begins in the text, plus one; 0 is a free slot.
    using Slot = std::size_t;

    /// The slot that holds the name, or the free one where it belongs. The table must have a free
    /// one.
    std::size_t find(std::string_view name) const;

    /// End of the name that begins there, erased or not.
    std::size_t endOfName(std::size_t begin) const { return text.find('\0', begin + 1); }
    bool isErased(std::size_t begin) const { return text[begin] == '\0'; }

    /// Drops the erased names from text and table, and gives the table room for as many again as
    /// are left.
    void rebuild();

    std::string text;          // each name is followed by a NUL; an erased one begins with a NUL
    std::vector<Slot> slots;   // a power of two of them; a name is in the first that was free
    std::size_t usedSlots = 0; // by names and erased names, two thirds at most
    std::size_t count = 0;     // of names that are not erased
};
