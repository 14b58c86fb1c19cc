// Names in one text, and the table that finds them.
#include "transfer/name_set.h"

#include <algorithm>
#include <functional>

namespace {

constexpr std::size_t fewestSlots = 512;

} // namespace

void NameSet::insert(std::string_view name) {
    if (usedSlots * 3 >= slots.size() * 2) {
        rebuild();
    }
    Slot& slot = slots[find(name)];
    if (slot != 0) {
        return;
    }
    slot = text.size() + 1;
    text.append(name).push_back('\0');
    ++usedSlots;
    ++count;
}

void NameSet::erase(std::string_view name) {
    if (count == 0) {
        return;
    }
    const Slot slot = slots[find(name)];
    if (slot != 0) {
        // The slot stays in use, so that names behind it are still found.
        text[slot - 1] = '\0';
        --count;
    }
}

std::vector<std::string_view> NameSet::sorted() const {
    std::vector<std::string_view> names;
    names.reserve(count);
    for (std::size_t begin = 0; begin < text.size(); begin = endOfName(begin) + 1) {
        if (!isErased(begin)) {
            names.emplace_back(text.data() + begin, endOfName(begin) - begin);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::size_t NameSet::find(std::string_view name) const {
    const std::size_t mask = slots.size() - 1;
    std::size_t index = std::hash<std::string_view>()(name) & mask;
    // The NUL behind a name in the text is compared too: it may be the beginning of that one only.
    while (slots[index] != 0 && (text.compare(slots[index] - 1, name.size(), name) != 0 ||
                                 text[slots[index] - 1 + name.size()] != '\0')) {
        index = (index + 1) & mask;
    }
    return index;
}

void NameSet::rebuild() {
    std::size_t size = fewestSlots;
    while (size < count * 3) {
        size *= 2;
    }
    slots.assign(size, 0);
    std::size_t kept = 0; // bytes of the text
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
        end = endOfName(begin);
        if (!isErased(begin)) {
            const std::string_view name(text.data() + begin, end - begin);
            slots[find(name)] = kept + 1;
            std::copy(text.begin() + static_cast<std::ptrdiff_t>(begin),
                      text.begin() + static_cast<std::ptrdiff_t>(end + 1),
                      text.begin() + static_cast<std::ptrdiff_t>(kept));
            kept += end + 1 - begin;
        }
    }
    text.resize(kept);
    usedSlots = count;
}
