// The command lines that a worker runs, and the environment of a copy process.
#pragma once

#include <string>
#include <vector>

/// The detector's directory as the copy program is told it. `sourcePath` begins and ends with "/".
std::string shareUrl(const std::string& remoteIp, const std::string& sourcePath);

/// Shell command that lists the share; its error output goes to a file of its own.
std::string listingCommand(const std::string& url);

/// Shell command that creates the target directory.
std::string makeTargetCommand(const std::string& targetPath);

/// Shell command that gives the target directory to the configured owner.
std::string changeOwnerCommand(const std::string& targetPath);

/// Command of one copy process, as it is logged. It does not go through a shell.
std::string copyCommand(const std::string& fileListName, const std::string& url,
                        const std::string& targetPath);

/// Text vectors in the form that execve takes. Built before fork, since the child may not allocate.
class ExecVector {
public:
    explicit ExecVector(std::vector<std::string> entries);
    ExecVector(const ExecVector&) = delete;
    ExecVector& operator=(const ExecVector&) = delete;

    /// A null-terminated array, valid as long as this object.
    char* const* get() const { return pointers.data(); }

private:
    std::vector<std::string> texts;
    std::vector<char*> pointers;
};

/// Argument vector of a copy command: split at blanks, quotation marks honoured and removed.
std::vector<std::string> copyArguments(const std::string& command);

/// The whole environment of a copy process: the owner that the copied files are to have.
std::vector<std::string> copyEnvironment();
