// The journal of the run that is going on: what it may remove at the source, what it has confirmed.
#include "confirming_rsync/journal.h"

#include "utilities/descriptors.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

Journal::Journal(Descriptor folder, const JournalHead& head) : folder_(std::move(folder)) {
    // Without a name until it is whole and held: nobody takes it for one that was left behind.
    file_ = Descriptor(::openat(folder_.get(), ".", O_TMPFILE | O_WRONLY | O_APPEND | O_CLOEXEC,
                                S_IRUSR | S_IWUSR));
    const std::string name =
        std::string(journalPrefix) + std::to_string(head.begun) + "-" + std::to_string(::getpid());
    const std::string text = headText(head);
    promised_ = text.size() + doneLine().size();
    if (!file_ || ::flock(file_.get(), LOCK_EX | LOCK_NB) != 0 || !writeAll(file_.get(), text) ||
        ::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(file_.get())).c_str(), folder_.get(),
                 name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        fail();
    }
}

void Journal::intend(std::string_view lines) {
    if (!file_ || !failure_.empty() || lines.empty()) {
        return;
    }
    promised_ += 2 * lines.size();
    // Where a file system can't keep room free, what it has must do.
    if (::fallocate(file_.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(promised_)) != 0 &&
        errno != EOPNOTSUPP && errno != ENOSYS && errno != EINTR) {
        failure_ = std::strerror(errno);
    } else {
        write(lines);
    }
}

void Journal::write(std::string_view lines) {
    if (file_ && !isBroken_ && !lines.empty() && !writeAll(file_.get(), lines)) {
        fail();
    }
}

void Journal::makeDurable() {
    if (file_ && !isBroken_ && (::fsync(file_.get()) != 0 || ::fsync(folder_.get()) != 0)) {
        fail();
    }
}

void Journal::fail() {
    isBroken_ = true;
    if (failure_.empty()) {
        failure_ = std::strerror(errno);
    }
}

} // namespace confirming
