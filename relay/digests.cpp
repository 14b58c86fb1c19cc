// Digests of the files of runs, for their manifests.
#include "relay/digests.h"

#include "relay/file_look.h"
#include "relay/messages.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <xxhash.h>

namespace relay {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t block = 1U << 18U; // bytes
constexpr std::int64_t claimedAtOnce = 16;
constexpr int idlePriority = 3 << 13; // of the disk: what nobody else wants
constexpr int largestNice = 19;
constexpr auto pause = std::chrono::milliseconds(500);

std::string hexadecimal(const unsigned char* bytes, std::size_t count) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (std::size_t n = 0; n < count; ++n) {
        text += digits[bytes[n] >> 4U];
        text += digits[bytes[n] & 15U];
    }
    return text;
}

/// A digest that grows with what is added.
class Sum {
public:
    explicit Sum(Checksum ofKind) : kind(ofKind) {
        XXH3_128bits_reset(xxh3.get());
        EVP_DigestInit_ex(sha256.get(), EVP_sha256(), nullptr);
    }

    void add(const char* bytes, std::size_t count) {
        if (kind == Checksum::sha256) {
            EVP_DigestUpdate(sha256.get(), bytes, count);
        } else {
            XXH3_128bits_update(xxh3.get(), bytes, count);
        }
    }

    /// As `sha256sum` or `xxh128sum` prints it.
    std::string text() {
        if (kind == Checksum::sha256) {
            std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
            unsigned size = 0;
            EVP_DigestFinal_ex(sha256.get(), digest.data(), &size);
            return "sha256:" + hexadecimal(digest.data(), size);
        }
        XXH128_canonical_t digest;
        XXH128_canonicalFromHash(&digest, XXH3_128bits_digest(xxh3.get()));
        return "xxh3:" + hexadecimal(digest.digest, sizeof digest.digest);
    }

private:
    const Checksum kind;
    std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> xxh3{XXH3_createState(),
                                                                  &XXH3_freeState};
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> sha256{EVP_MD_CTX_new(),
                                                                   &EVP_MD_CTX_free};
};

/// The file without following a link in its name; -1 and errno if that can't be.
int openFile(const std::string& target, const std::string& name) {
    const Descriptor folder(
        ::open(target.empty() ? "." : target.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder ? openBeneath(folder.get(), name, O_RDONLY | O_NONBLOCK) : -1;
}

/// True if the open file is a regular one, and the one that was announced.
bool isStill(const RunFile& file, int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
           file.identity == identityOf(status);
}

} // namespace

Digests::Digests(Runs& ofRuns, std::function<std::size_t(std::string_view)> nameIn)
    : runs(ofRuns), nameBeginning(std::move(nameIn)) {
    const bool isWanted = runs.settings.checksum != Checksum::none;
    for (std::int64_t n = 0; isWanted && n < runs.settings.checksumThreads; ++n) {
        threads.emplace_back([this] { work(); });
    }
}

Digests::~Digests() {
    {
        const std::lock_guard<std::mutex> guard(mutex);
        isEnding = true;
    }
    ending.notify_all();
    for (std::thread& each : threads) {
        each.join();
    }
}

void Digests::work() {
    // Of this thread alone. Where that is forbidden, the rate must do.
    const auto thread = static_cast<id_t>(::gettid());
    ::setpriority(PRIO_PROCESS, thread, largestNice);
    ::syscall(SYS_ioprio_set, 1, thread, idlePriority);
    while (!isEnding) {
        std::vector<RunFile> files = claim();
        for (RunFile& each : files) {
            take(each);
        }
        if (files.empty()) {
            rest(Clock::now() + pause);
        }
        store(files);
    }
}

std::vector<RunFile> Digests::claim() {
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        std::vector<RunFile> files = runs.undigested(claimed, claimedAtOnce);
        claimed = files.empty() ? claimed : files.back().sequence;
        return files;
    } catch (const std::runtime_error&) {
        return {}; // the intake tells of it; they are asked for again
    }
}

void Digests::take(RunFile& file) {
    file.digestState = DigestState::impossible;
    const std::size_t name = nameBeginning(file.path);
    const Descriptor opened(openFile(file.path.substr(0, name), file.path.substr(name)));
    if (!opened) {
        file.digest = errno == ENOENT  ? "it is gone"
                      : errno == ELOOP ? "a link leads to it"
                                       : "it cannot be opened: " + systemError(errno);
    } else if (!isStill(file, opened.get())) {
        file.digest = "another file has its name";
    } else {
        read(file, opened.get());
    }
}

void Digests::read(RunFile& file, int descriptor) {
    Sum sum(runs.settings.checksum);
    std::vector<char> bytes(block);
    ssize_t got = 0;
    int error = 0;
    do {
        got = TEMP_FAILURE_RETRY(::read(descriptor, bytes.data(), bytes.size()));
        error = errno;
        sum.add(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        Clock::time_point behind;
        if (const std::int64_t rate = runs.settings.checksumRate; rate > 0 && got > 0) {
            const std::lock_guard<std::mutex> guard(mutex);
            const std::chrono::duration<double> cost(static_cast<double>(got) /
                                                     static_cast<double>(rate));
            behind = free =
                std::max(free, Clock::now()) + std::chrono::duration_cast<Clock::duration>(cost);
        }
        if (!rest(behind)) {
            file.digestState = DigestState::pending; // the next start takes it
            return;
        }
    } while (got > 0);
    if (got < 0) {
        file.digest = "it cannot be read: " + systemError(error);
    } else if (!isStill(file, descriptor)) {
        file.digest = "it was changed";
    } else {
        file.digestState = DigestState::taken;
        file.digest = sum.text();
    }
}

void Digests::store(std::vector<RunFile>& digested) {
    while (!digested.empty()) {
        try {
            runs.setDigests(digested);
            digested.clear();
        } catch (const std::runtime_error&) {
            if (!rest(Clock::now() + pause)) {
                return; // the next start takes them again
            }
        }
    }
}

bool Digests::rest(Clock::time_point until) {
    std::unique_lock<std::mutex> guard(mutex);
    return !ending.wait_until(guard, until, [this] { return isEnding.load(); });
}

} // namespace relay
