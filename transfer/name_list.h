// The names that one cycle is to transfer, kept so that a listing of a million entries does no
// harm.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

/// Names in the order in which they were added. They are kept in one text, since a string of its
/// own for each takes about three times as much memory. No name may hold a line feed.
class NameList {
public:
    /// Walks over the names; what it gives is valid until the list changes.
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = const std::string_view*;
        using reference = std::string_view;

        explicit Iterator(std::string_view textFromHere) : rest(textFromHere) {}

        std::string_view operator*() const { return rest.substr(0, rest.find('\n')); }
        Iterator& operator++() {
            rest.remove_prefix(rest.find('\n') + 1);
            return *this;
        }
        bool operator==(const Iterator& other) const { return rest.size() == other.rest.size(); }
        bool operator!=(const Iterator& other) const { return !(*this == other); }

    private:
        std::string_view rest; // the name and all that follow
    };

    void add(std::string_view name);

    /// The name that was added last, valid until the list changes. The list must not be empty.
    std::string_view last() const;

    /// Takes out the name that was added last. The list must not be empty.
    void removeLast();

    std::size_t size() const { return count; }
    bool empty() const { return count == 0; }

    Iterator begin() const { return Iterator(text); }
    Iterator end() const { return Iterator({}); }

private:
    std::string text; // each name is followed by a line feed
    std::size_t count = 0;
    std::size_t lastBegin = 0; // of the last name in the text
};
