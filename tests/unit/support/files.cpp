// Files and directories as the tests make and look at them.
#include "tests/unit/support/files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

ScratchDirectory::ScratchDirectory() {
    std::string name = "/tmp/unit_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    directory = name;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code error;
    std::filesystem::remove_all(directory, error);
}

std::string readFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
}

void writeScript(const std::string& path, const std::string& body) {
    const std::string unnamed = path + ".being_written";
    writeFile(unnamed, "#!/bin/sh\n" + body);
    chmod(unnamed.c_str(), 0755);
    rename(unnamed.c_str(), path.c_str());
}

bool exists(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

mode_t permissions(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 07777 + 1;
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

bool takeOut(std::string& text, const std::string& part) {
    const std::size_t at = text.find(part);
    if (at == std::string::npos) {
        return false;
    }
    text.erase(at, part.size());
    return true;
}

std::vector<int> openDescriptors() {
    std::vector<int> numbers;
    for (const std::string& name : namesIn("/proc/self/fd")) {
        const int number = std::stoi(name);
        // The one through which the directory was read is gone again.
        if (fcntl(number, F_GETFD) != -1) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}
