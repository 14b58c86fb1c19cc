// Many threads log while rotation runs: every piece of text whole, none missing, each in its place.
#include "log/log_file.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/thread.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// A thread that logs as a worker or an evaluator does, and remembers its pieces: texts that must
/// stand in the log without anything in between. A piece begins with its writer's letter and its
/// number.
class Writer : public Thread {
public:
    Writer(char ownLetter, std::string logPath, const std::atomic<bool>& beginning,
           std::function<void(Writer&)> ownWork)
        : letter(ownLetter), path(std::move(logPath)), begin(beginning), work(std::move(ownWork)) {}

    void run() override {
        while (!begin) {
        }
        work(*this);
    }

    /// A name like the objects of the daemon have it: no mutex at first, then the shared one.
    void open(LogFile& log) const {
        log.setMutex(mutex());
        log.open(path);
    }

    /// How the lines of the next piece begin.
    std::string next() const { return letter + std::to_string(pieces.size()) + " "; }

    void remember(std::string piece) { pieces.push_back(std::move(piece)); }

    const char letter;
    std::vector<std::string> pieces;

private:
    const std::string path;
    const std::atomic<bool>& begin;
    const std::function<void(Writer&)> work;
};

constexpr int rounds = 120;
constexpr int workers = 4;
constexpr int evaluators = 4;
constexpr int sizeLimit = 500;
/// No more rotations than calls, so that no archive is ever discarded.
constexpr int archives = 2 * workers * rounds;

/// What a worker logs: a line by a chain of insertions, a section of several write-outs under the
/// lock, a text that waits in memory for the next line.
void workAsWorker(Writer& self) {
    LogFile log(nullptr);
    self.open(log);
    for (int round = 0; round < rounds; ++round) {
        log.tryRotate(sizeLimit, archives);

        const std::string start = self.next();
        log << start << "++++\n" << start << " ++++\n";
        log << start << "starting " << round << " copy processes" << endl;
        std::string begun;
        begun.append(start).append("++++\n").append(start).append(" ++++\n").append(start);
        begun.append("starting ").append(std::to_string(round)).append(" copy processes\n");
        self.remember(begun);

        const std::string call = self.next();
        log << call << "rsync call: " << std::string(200, '-') << endl << flush;
        self.remember(call + "rsync call: " + std::string(200, '-') + "\n");

        const std::string section = self.next();
        std::string whole;
        self.lock();
        for (const char* const child : {"first", "second", "third"}) {
            log << section << "child " << child << " terminated \n" << flush;
            whole += section + "child " + child + " terminated \n";
        }
        self.unlock();
        self.remember(whole);

        if (round % 3 == 0) {
            // A rotation under the lock that is held already, between two lines.
            const std::string before = self.next();
            self.lock();
            log << before << "before" << endl;
            self.remember(before + "before\n");
            log.tryRotate(sizeLimit, archives);
            const std::string after = self.next();
            log << after << "after" << endl;
            self.remember(after + "after\n");
            self.unlock();
        }
    }
}

/// What one evaluator after the other logs, each through an object of its own that probes the file:
/// a warning, and a block of many lines in one go, now and then a large one.
void workAsEvaluator(Writer& self) {
    for (int round = 0; round < rounds; ++round) {
        LogFile log(nullptr);
        self.open(log);

        const std::string warning = self.next();
        log << warning << "++ Warning" << endl;
        self.remember(warning + "++ Warning\n");

        const std::string lines = self.next();
        std::string block = lines + "BEGIN\n";
        for (int i = 0; i < (round % 20 == 0 ? 3000 : 10); ++i) {
            block += lines + "output " + std::to_string(i) + "\n";
        }
        block += lines + "END\n";
        log << block << flush;
        self.remember(std::move(block));
    }
}

class LogHammer : public SettingsTest {
protected:
    void makeWriters(int count, void (*work)(Writer&)) {
        for (int i = 0; i < count; ++i) {
            const auto letter = static_cast<char>('a' + static_cast<int>(writers.size()));
            writers.push_back(std::make_unique<Writer>(letter, path, begin, work));
        }
    }

    /// The files of the log, the oldest first.
    std::vector<std::string> filesInOrder() const {
        std::vector<std::string> names;
        for (int number = archives; number >= 0; --number) {
            if (exists(path + "." + std::to_string(number))) {
                names.push_back(path + "." + std::to_string(number));
            }
        }
        if (exists(path)) {
            names.push_back(path);
        }
        return names;
    }

    /// Takes the piece that `text` must begin with off its front. Fails if there is none: a piece
    /// of text that is torn, mixed with another or out of its writer's order.
    bool takePiece(std::string_view& text, std::vector<std::size_t>& found) const {
        const auto number = static_cast<std::size_t>(text.front() - 'a');
        if (text.front() < 'a' || number >= writers.size() ||
            found[number] == writers[number]->pieces.size()) {
            return false;
        }
        const std::string& piece = writers[number]->pieces[found[number]];
        if (text.substr(0, piece.size()) != piece) {
            return false;
        }
        text.remove_prefix(piece.size());
        ++found[number];
        return true;
    }

    const std::string path = scratch / "log";
    std::atomic<bool> begin{false};
    std::vector<std::unique_ptr<Writer>> writers;
};

} // namespace

TEST_F(LogHammer, LosesTearsAndMixesNothingWhileRotationRuns) {
    makeWriters(workers, workAsWorker);
    makeWriters(evaluators, workAsEvaluator);
    for (const auto& writer : writers) {
        ASSERT_EQ(writer->start(), 0);
    }
    begin = true;
    for (const auto& writer : writers) {
        ASSERT_EQ(writer->join(), 0);
    }

    const std::vector<std::string> files = filesInOrder();
    EXPECT_EQ(namesIn(scratch.path()).size(), files.size());
    EXPECT_GT(files.size(), static_cast<std::size_t>(rounds));
    std::vector<std::size_t> found(writers.size(), 0);
    for (const std::string& file : files) {
        const std::string content = readFile(file);
        if (file != path) {
            EXPECT_GT(content.size(), static_cast<std::size_t>(sizeLimit)) << file;
        }
        std::string_view rest = content;
        while (!rest.empty()) {
            ASSERT_TRUE(takePiece(rest, found))
                << file << " from byte " << content.size() - rest.size() << ": "
                << rest.substr(0, 400);
        }
    }
    for (std::size_t i = 0; i < writers.size(); ++i) {
        EXPECT_EQ(found[i], writers[i]->pieces.size()) << "pieces of writer " << writers[i]->letter;
    }
}
