// Names in one text, a line feed behind each.
#include "transfer/name_list.h"

void NameList::add(std::string_view name) {
    text += name;
    text += '\n';
    ++count;
}

std::string_view NameList::last() const {
    const std::string_view all(text.data(), text.size() - 1);
    // Without a line feed in front it is the only one: npos + 1 is 0.
    return all.substr(all.rfind('\n') + 1);
}

void NameList::removeLast() {
    text.resize(text.size() - last().size() - 1);
    --count;
}
