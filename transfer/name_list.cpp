// Names in one text, a line feed behind each.
#include "transfer/name_list.h"

void NameList::add(std::string_view name) {
    lastBegin = text.size();
    text += name;
    text += '\n';
    ++count;
}

std::string_view NameList::last() const {
    return {text.data() + lastBegin, text.size() - 1 - lastBegin};
}

void NameList::removeLast() {
    text.resize(lastBegin);
    --count;
    // Without a line feed in front of the one before it, that is the only one: npos + 1 is 0.
    lastBegin = count < 2 ? 0 : text.rfind('\n', lastBegin - 2) + 1;
}
