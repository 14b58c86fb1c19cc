// Keeping the log bounded by size-based rotation, and copying a whole file into it.
#include "log/log_file.h"
#include "utilities/mutex_guard.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

std::uint64_t LogFile::fileSize() const {
    std::ifstream file(fileName, std::ios::binary);
    if (!file) {
        return 0;
    }
    file.seekg(0, std::ios::end);
    const std::streamoff size = file.tellg();
    return size < 0 ? 0 : static_cast<std::uint64_t>(size);
}

void LogFile::rotate(int highestNumber) {
    const auto archive = [this](int number) { return fileName + "." + std::to_string(number); };
    for (int i = highestNumber; i > 0; --i) {
        // A missing archive makes its rename fail, which is as good as renaming nothing.
        rename(archive(i - 1).c_str(), archive(i).c_str());
    }
    rename(fileName.c_str(), archive(0).c_str());
}

void LogFile::tryRotate(int maxSize, int highestNumber) {
    const MutexGuard guard(mutex);
    const auto limit = static_cast<std::uint64_t>(static_cast<std::int64_t>(maxSize));
    if (fileSize() > limit) {
        rotate(highestNumber);
    }
}

void LogFile::logFromFile(const std::string& path) {
    if (!buffer.empty()) {
        writeOut();
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return;
    }
    std::ostringstream content;
    content << file.rdbuf();
    std::string text = content.str();
    text.resize(std::min(text.size(), text.find('\0')));
    append(text);
}
