// How many copy processes a cycle gets, and the file lists they read.
#pragma once

#include "transfer/name_list.h"
#include "utilities/descriptors.h"

#include <string>
#include <string_view>
#include <vector>

/// Number of copy processes for `count` names: one for each 101 names begun, at most `setting`. The
/// comparison is unsigned: a negative setting is no limit. A setting of 0 counts as 1.
int copyProcessCount(std::size_t count, int setting);

/// Path of the file list for the copy process of this `index`, of the calling thread: no two
/// workers and no two daemons share one.
std::string fileListName(int index);

/// One copy process's file list: the names it is to copy, a line each, in a file under /tmp
/// that the daemon alone writes.
class FileList {
public:
    /// Creates the file, replacing whatever has its name without following a link. Its mode is
    /// 0644: a copy program may have become another user when it reads the names, which are no
    /// secret, for the log has them too. On failure the names written to it are lost for this
    /// cycle: their files stay in the share and are listed again.
    explicit FileList(std::string fileName);

    const std::string& name() const { return fileName; }

    /// Adds a name. Where the file can't take it, this name and all later ones are lost for this
    /// cycle; the file holds whole names only.
    void add(std::string_view entry);

    /// Writes out what was added and closes the file.
    void close();

private:
    void writePending();

    std::string fileName;
    Descriptor file;
    std::string pending; // names not written to the file yet
};

/// Creates `n` file lists for the calling thread and deals the names to them round-robin. All are
/// written out and closed.
std::vector<FileList> dealNames(const NameList& names, int n);
