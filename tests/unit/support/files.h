// Files and directories as the tests make and look at them.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

/// A fresh, empty directory under /tmp that goes with all it holds when this object does.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return directory; }

    /// Path of an entry of it.
    std::string operator/(const std::string& name) const { return directory + "/" + name; }

private:
    std::string directory;
};

/// The whole content of a file; empty if it can't be read.
std::string readFile(const std::string& path);

/// Writes a file anew, in place, with the directories above it.
void writeFile(const std::string& path, const std::string& content);

/// Writes a shell script that can be executed: "#!/bin/sh", a line feed, `body`. It is closed
/// before it takes its name, so that no child that was forked meanwhile keeps it open for writing.
void writeScript(const std::string& path, const std::string& body);

bool exists(const std::string& path);

/// The permission bits of a file, or 07777 + 1 if there is none.
mode_t permissions(const std::string& path);

/// Names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory);

/// The lines of a text, without their line feeds.
std::vector<std::string> linesOf(const std::string& text);

/// How often `part` occurs in `text`, without overlap.
std::size_t countOf(const std::string& text, const std::string& part);

/// Takes the first occurrence of `part` out of `text`. Returns false if there is none.
bool takeOut(std::string& text, const std::string& part);

/// The descriptors that this process has open, ascending.
std::vector<int> openDescriptors();
