// Reading a copy process's report to its end.
#include "daemon/global.h"
#include "tests/unit/support/fifo_reader.h"
#include "tests/unit/support/settings_test.h"
#include "tests/unit/support/waiting.h"
#include "transfer/rsync_evaluator.h"

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Evaluator : public SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        GLOBAL::logFileName = logPath;
        GLOBAL::pathToVantrelFifo = fifoPath;
    }

    /// Evaluates a whole report and returns what the log got.
    std::string logOf(const std::string& report) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return "no pipe";
        }
        RsyncEvaluator evaluator(ends[0], target);
        if (evaluator.start() != 0) {
            return "no thread";
        }
        std::size_t written = 0;
        while (written < report.size()) {
            const ssize_t count = write(ends[1], report.data() + written, report.size() - written);
            if (count < 0) {
                return "no write";
            }
            written += static_cast<std::size_t>(count);
        }
        close(ends[1]);
        evaluator.join();
        return logText();
    }

    std::string logText() const { return readFile(logPath); }

    const std::string target = "/images/.";
    const std::string fifoPath = scratch / "fifo";
    const std::string logPath = scratch / "log";
    const std::string noPipe = "++ Warning: No pipe to VANTREL\n";
    const std::string begin = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
    const std::string end = "++ RSYNC OUTPUT END ++++++++++++++++++++\n";
};

/// The same with the named pipe there and read.
class EvaluatorWithConsumer : public Evaluator {
protected:
    void SetUp() override {
        Evaluator::SetUp();
        makeFifo(fifoPath);
        consumer = std::make_unique<FifoReader>(fifoPath);
    }

    void TearDown() override {
        consumer.reset();
        Evaluator::TearDown();
    }

    std::unique_ptr<FifoReader> consumer;
};

} // namespace

TEST_F(EvaluatorWithConsumer, LogsTheMarkersAloneForAnEmptyReport) {
    EXPECT_EQ(logOf(""), begin + end);
    EXPECT_EQ(consumer->text(), "");
}

TEST_F(EvaluatorWithConsumer, LogsLostFilesAndTheSummary) {
    EXPECT_EQ(logOf("SENT: a\nSENT: b\nCONFIRMED: x a\n"),
              "Error: Lost b\n" + begin + "Copied 1 files in the range of: a ... a\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./a\n");
}

TEST_F(EvaluatorWithConsumer, CountsHandsOffAndLosesANameConfirmedBeforeItWasSent) {
    EXPECT_EQ(logOf("CONFIRMED: x b\nSENT: b\n"),
              "Error: Lost b\n" + begin + "Copied 1 files in the range of: b ... b\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./b\n");
}

TEST_F(EvaluatorWithConsumer, CountsAndHandsOffANameTwiceThatIsConfirmedTwice) {
    EXPECT_EQ(logOf("SENT: a\nCONFIRMED: x a\nCONFIRMED: x a\n"),
              begin + "Copied 2 files in the range of: a ... a\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./a\n/images/./a\n");
}

TEST_F(EvaluatorWithConsumer, HandsOffAConfirmationWithoutNameButDoesNotCountIt) {
    EXPECT_EQ(logOf("CONFIRMED: x\nCONFIRMED:\n"), begin + end);
    EXPECT_EQ(consumer->text(), "/images/./\n/images/./\n");
}

TEST_F(EvaluatorWithConsumer, IgnoresASentLineWithoutNameAndKeepsABlankLine) {
    EXPECT_EQ(logOf("SENT:\n\n  \nother output\n"), begin + "\n  \nother output\n" + end);
}

TEST_F(EvaluatorWithConsumer, HandsOffTheFirstWordOfANameWithBlanks) {
    EXPECT_EQ(logOf("SENT: my file\nCONFIRMED: x my file\n"),
              begin + "Copied 1 files in the range of: my ... my\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./my\n");
}

TEST_F(EvaluatorWithConsumer, TakesALastLineWithoutLineFeed) {
    EXPECT_EQ(logOf("CONFIRMED: x a\nbroken off"),
              begin + "broken offCopied 1 files in the range of: a ... a\n" + end);
}

TEST_F(EvaluatorWithConsumer, TakesAConfirmationAsLastLineWithoutLineFeed) {
    EXPECT_EQ(logOf("CONFIRMED: x a"), begin + "Copied 1 files in the range of: a ... a\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./a\n");
}

TEST_F(EvaluatorWithConsumer, TakesALongLineInPiecesOf1023Bytes) {
    // The second piece begins with a word of its own.
    const std::string filler(1023, 'x');
    EXPECT_EQ(logOf(filler + "CONFIRMED: x a\n"),
              begin + filler + "Copied 1 files in the range of: a ... a\n" + end);
    EXPECT_EQ(consumer->text(), "/images/./a\n");
}

TEST_F(EvaluatorWithConsumer, KeepsTheBytesOfOtherOutputUpToANul) {
    EXPECT_EQ(logOf(std::string("\xff\x01 out\0lost\nnext\n", 17)),
              begin + "\xff\x01 outnext\n" + end);
}

TEST_F(EvaluatorWithConsumer, SkipsALineThatBeginsWithANul) {
    EXPECT_EQ(logOf(std::string("\0SENT: a\nSENT: b\n", 17)), "Error: Lost b\n" + begin + end);
}

TEST_F(EvaluatorWithConsumer, HandsFilesOnWhileTheReportGoesOn) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    RsyncEvaluator evaluator(ends[0], target);
    ASSERT_EQ(evaluator.start(), 0);
    const std::string line = "CONFIRMED: x early\n";
    ASSERT_EQ(write(ends[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    EXPECT_TRUE(waitUntil([this] { return consumer->text() == "/images/./early\n"; }));
    EXPECT_EQ(logText(), "");
    close(ends[1]);
    evaluator.join();
    EXPECT_EQ(logText(), begin + "Copied 1 files in the range of: early ... early\n" + end);
}

TEST_F(EvaluatorWithConsumer, KeepsTheBlocksOfSeveralReportsApart) {
    constexpr int evaluators = 4;
    constexpr int lines = 300;
    int ends[evaluators][2];
    std::vector<std::unique_ptr<RsyncEvaluator>> running;
    for (auto& pipeEnds : ends) {
        ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
        running.push_back(std::make_unique<RsyncEvaluator>(pipeEnds[0], target));
        ASSERT_EQ(running.back()->start(), 0);
    }
    for (int i = 0; i < lines; ++i) {
        for (int e = 0; e < evaluators; ++e) {
            const std::string line = "output of " + std::to_string(e) + "\n";
            ASSERT_GT(write(ends[e][1], line.data(), line.size()), 0);
        }
    }
    for (auto& pipeEnds : ends) {
        close(pipeEnds[1]);
    }
    for (auto& evaluator : running) {
        evaluator->join();
    }
    std::string text = logText();
    for (int e = 0; e < evaluators; ++e) {
        std::string block = begin;
        for (int i = 0; i < lines; ++i) {
            block += "output of " + std::to_string(e) + "\n";
        }
        EXPECT_TRUE(takeOut(text, block + end)) << "report " << e;
    }
    EXPECT_EQ(text, "");
}

TEST_F(Evaluator, WarnsOnceWithoutNamedPipeAndLogsTheSummaryAllTheSame) {
    EXPECT_EQ(logOf("SENT: a\nCONFIRMED: x a\nCONFIRMED: x b\n"),
              noPipe + begin + "Copied 2 files in the range of: a ... b\n" + end);
}

TEST_F(Evaluator, ReportsEachFileThatItFailsToPassAndGoesOn) {
    ASSERT_EQ(mkdir(fifoPath.c_str(), 0755), 0);
    EXPECT_EQ(logOf("CONFIRMED: x a\nCONFIRMED: x b\nother\n"),
              "++ Error: Failed to pass a to VANTREL\n          Bad file descriptor\n"
              "++ Error: Failed to pass b to VANTREL\n          Bad file descriptor\n" +
                  begin + "other\nCopied 2 files in the range of: a ... b\n" + end);
}

TEST_F(Evaluator, ReadsNothingWhileItWaitsForAConsumer) {
    makeFifo(fifoPath);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_RDONLY), 0);
    RsyncEvaluator evaluator(ends[0], target);
    ASSERT_EQ(evaluator.start(), 0);
    // The copy process is stopped by a full pipe.
    const std::string line = "CONFIRMED: x a\n";
    const std::string filler(4096 - line.size() - 1, '-');
    const std::string block = line + filler + "\n";
    std::size_t blocks = 0;
    while (write(ends[1], block.data(), block.size()) > 0) {
        ++blocks;
    }
    EXPECT_EQ(errno, EAGAIN);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LT(write(ends[1], block.data(), block.size()), 0);

    FifoReader reader(fifoPath);
    close(ends[1]);
    evaluator.join();
    EXPECT_EQ(countOf(reader.text(), "/images/./a\n"), blocks);
    EXPECT_EQ(countOf(logText(), "Copied " + std::to_string(blocks) + " files"), 1U);
}
