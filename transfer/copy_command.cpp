// Building command lines from the settings.
#include "transfer/copy_command.h"

#include "daemon/global.h"
#include "utilities/text.h"

#include <utility>

std::string shareUrl(const std::string& remoteIp, const std::string& sourcePath) {
    return "rsync://root@" + remoteIp + ":" + GLOBAL::rsyncPort + "/" + GLOBAL::rsyncdShare +
           sourcePath;
}

std::string listingCommand(const std::string& url) {
    return GLOBAL::rsyncCommand + " " + GLOBAL::rsyncListingOptions +
           " --password-file=" + GLOBAL::passwordFile + " " + url + " 2>/tmp/skarn_error.log";
}

std::string makeTargetCommand(const std::string& targetPath) {
    return "mkdir -p " + targetPath;
}

std::string changeOwnerCommand(const std::string& targetPath) {
    return "chown " + GLOBAL::uid + ":" + GLOBAL::gid + " " + targetPath;
}

std::string copyCommand(const std::string& fileListName, const std::string& url,
                        const std::string& targetPath) {
    return GLOBAL::rsyncCommand + " " + GLOBAL::rsyncOptions +
           " --password-file=" + GLOBAL::passwordFile + " --files-from=" + fileListName + " " +
           url + " " + targetPath + "/";
}

ExecVector::ExecVector(std::vector<std::string> entries) : texts(std::move(entries)) {
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
}

std::vector<std::string> copyArguments(const std::string& command) {
    return UTILITIES::splitWords(command, ' ');
}

std::vector<std::string> copyEnvironment() {
    return {"RSYNC_UID=" + GLOBAL::uid, "RSYNC_GID=" + GLOBAL::gid};
}
