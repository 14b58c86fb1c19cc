// The configuration as the daemon takes it: from its text, with start options, and from files.
#include "control/configuration.h"
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "transfer/worker.h"
#include "utilities/descriptors.h"

#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Words = std::vector<std::string>;

Configuration make(const std::string& text, const Words& options = {}) {
    const LoadedConfiguration loaded = makeConfiguration(text, options);
    EXPECT_TRUE(loaded.configuration) << loaded.problem;
    return loaded.configuration.value_or(Configuration());
}

std::string problemOf(const Words& options) {
    const LoadedConfiguration loaded =
        makeConfiguration("\ndetectorID 1 \ntarget /a \ndetectorID 2 ", options);
    EXPECT_FALSE(loaded.configuration);
    return loaded.problem;
}

TEST(MakeConfiguration, GivesTheDefaultsWithoutText) {
    const Configuration made = make("");
    EXPECT_EQ(made.logFileName, "/dev/null");
    EXPECT_EQ(made.logFileMaxSize, 10485760);
    EXPECT_EQ(made.logFileMaxNumber, 10);
    EXPECT_EQ(made.uid + made.gid + made.usrdir, "");
    EXPECT_THAT(made.detectors, IsEmpty());
}

TEST(MakeConfiguration, TakesTheSettings) {
    const Configuration made = make("\nlogfile /x \nlogfile_max_size 2K \nlogfile_max_number 3 "
                                    "\nuid 5 \ngid 6 ");
    EXPECT_EQ(made.logFileName, "/x");
    EXPECT_EQ(made.logFileMaxSize, 2048);
    EXPECT_EQ(made.logFileMaxNumber, 3);
    EXPECT_EQ(made.uid, "5");
    EXPECT_EQ(made.gid, "6");
}

TEST(MakeConfiguration, OrdersDetectorsByTheirIds) {
    const Configuration made =
        make("\ndetectorID b \ndetectorID 10 \ndetectorID 9 \ndetectorID B ");
    Words ids;
    for (const Detector& detector : made.detectors) {
        ids.push_back(detector.id);
    }
    EXPECT_THAT(ids, ElementsAre("10", "9", "B", "b"));
}

TEST(MakeConfiguration, CompletesSourceAndTarget) {
    const Configuration made =
        make("\ndetectorID 1 \nremoteIP h \nsource a/b \ntarget /t \nminpause 7 "
             "\ninterrun_pause 8 ");
    ASSERT_EQ(made.detectors.size(), 1U);
    const Detector& detector = made.detectors[0];
    EXPECT_EQ(detector.remoteIp, "h");
    EXPECT_EQ(detector.shareUrl, "rsync://root@h:49371/ramdisk/a/b/");
    EXPECT_EQ(detector.target, "/t/.");
    EXPECT_EQ(detector.destination(), "/t/./");
    EXPECT_EQ(detector.minPause, 7);
    EXPECT_EQ(detector.interrunPause, 8);
}

TEST(MakeConfiguration, ServesTheLastBlockOfAnIdAndPassesOnPauses) {
    const Configuration made = make(
        "\ndetectorID 1 \ntarget /old \nminpause 5 \ndetectorID 2 \ndetectorID 1 \ntarget /new ");
    ASSERT_EQ(made.detectors.size(), 2U);
    EXPECT_EQ(made.detectors[0].target, "/new/.");
    EXPECT_EQ(made.detectors[0].minPause, 5);
    EXPECT_EQ(made.detectors[1].target, "/.");
}

TEST(MakeConfiguration, PutsTheUsersDirectoryBelowEachTarget) {
    const std::string text = "\nuid 1 \ngid 2 \nusrdir u$UID/$GID/$UID \ndetectorID 1 \ntarget /t ";
    EXPECT_EQ(make(text).detectors[0].target, "/t/./u1/2/$UID");
    EXPECT_EQ(make(text, {"-u", "7:8"}).detectors[0].target, "/t/./u7/8/$UID");
    EXPECT_EQ(make(text, {"-d", "1:s:/n"}).detectors[0].target, "/n/./u1/2/$UID");
}

TEST(MakeConfiguration, AppliesStartOptionsInTheirOrder) {
    const Configuration made = make("\ndetectorID 1 \nsource a \ntarget /t ",
                                    {"-d", "1:x:/x", "--detector", "1:'y:z':/y", "--user", "1::2"});
    EXPECT_EQ(made.detectors[0].shareUrl, "rsync://root@:49371/ramdisk/y:z/");
    EXPECT_EQ(made.detectors[0].target, "/y/.");
    EXPECT_EQ(made.uid, "1");
    EXPECT_EQ(made.gid, "2");
}

TEST(MakeConfiguration, RefusesTheStartOptionsThatTheDaemonRefuses) {
    EXPECT_EQ(problemOf({"-x"}), "Unknown option -x");
    EXPECT_EQ(problemOf({"-u", "1:2", "start"}), "Unknown option start");
    EXPECT_EQ(problemOf({"-d", "3:a:b"}), "No detectorID 3 found in config file");
    for (const Words& options :
         {Words{"-u"}, Words{"-u", "1"}, Words{"-u", "1:2:3"}, Words{"-d"}, Words{"-d", "1:a"},
          Words{"-d", "1:a:b:c"}, Words{"-d", "1::/b"}, Words{"-d", ""}}) {
        EXPECT_THAT(problemOf(options), HasSubstr(options[0] + " needs "));
    }
}

class ConfigFile : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(folder.data()), nullptr); }
    void TearDown() override {
        unlink(path().c_str());
        rmdir(folder.c_str());
    }
    std::string path() const { return folder + "/file"; }
    void write(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }

    std::string folder = "/tmp/configuration_XXXXXX";
};

TEST_F(ConfigFile, IsReadAsItStands) {
    const std::string text("logfile /x\n\0\xff\n", 14);
    write(text);
    const FileText read = readConfigFile(path());
    ASSERT_TRUE(read.text);
    EXPECT_EQ(*read.text, text);
}

TEST_F(ConfigFile, IsLoadedWithStartOptions) {
    write("detectorID 1\ntarget /a\n");
    const LoadedConfiguration loaded = loadConfiguration(path(), {"-d", "1:/s:/t"});
    ASSERT_TRUE(loaded.configuration) << loaded.problem;
    EXPECT_EQ(loaded.configuration->detectors.at(0).target, "/t/.");
}

TEST_F(ConfigFile, MayBeMissing) {
    EXPECT_EQ(loadConfiguration(path(), {}).problem,
              "cannot read " + path() + ": No such file or directory");
    EXPECT_THAT(loadConfiguration("", {}).problem, HasSubstr("cannot read"));
}

TEST_F(ConfigFile, IsARegularFile) {
    EXPECT_THAT(readConfigFile(folder).problem, HasSubstr("it is a directory"));
    EXPECT_THAT(readConfigFile("/dev/zero").problem, HasSubstr("not a regular file"));
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_THAT(readConfigFile(path()).problem, HasSubstr("not a regular file"));
}

TEST_F(ConfigFile, HasALimit) {
    write(std::string(largestConfigFile, '\n'));
    EXPECT_TRUE(readConfigFile(path()).text);
    ASSERT_EQ(truncate(path().c_str(), static_cast<off_t>(largestConfigFile) + 1), 0);
    EXPECT_THAT(readConfigFile(path()).problem, HasSubstr("larger than 1048576 bytes"));
    ASSERT_EQ(truncate(path().c_str(), off_t(1) << 40), 0);
    EXPECT_THAT(readConfigFile(path()).problem, HasSubstr("larger than"));
}

/// The daemon's own places, which only the sandbox has for a test alone.
class ConfigPlaces : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(findConfigFile()) << "to be run where no configuration is";
        mkdir("/etc/skarn_orbelin", 0755);
    }
    void TearDown() override {
        for (const std::string& path : configFilePaths()) {
            unlink(path.c_str());
        }
        rmdir("/etc/skarn_orbelin");
    }
};

/// What the daemon made of a detector, which it keeps to itself.
class Revealed : public Worker {
public:
    static std::string describe(const std::string& id, const Worker& worker) {
        return id + "|" + shareUrl(worker.*(&Revealed::remoteIp), worker.*(&Revealed::sourcePath)) +
               "|" + worker.target() + "|" + std::to_string(worker.*(&Revealed::minPause)) + "|" +
               std::to_string(worker.*(&Revealed::interrunPause)) + "\n";
    }
};

std::string describe(const Configuration& made) {
    std::string text = made.logFileName + "|" + std::to_string(made.logFileMaxSize) + "|" +
                       std::to_string(made.logFileMaxNumber) + "|" + made.uid + "|" + made.gid +
                       "|" + made.usrdir + "\n";
    for (const Detector& each : made.detectors) {
        text += each.id + "|" + each.shareUrl + "|" + each.target + "|" +
                std::to_string(each.minPause) + "|" + std::to_string(each.interrunPause) + "\n";
    }
    return text;
}

/// The same from a daemon that comes up on the configuration in its place; "refused" if it does
/// not. It lives in a process of its own, whose settings it changes.
std::string describeDaemon(const Words& options) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    fflush(stdout); // or the child would print it again
    const pid_t child = fork();
    if (child == 0) {
        GLOBAL::passwordFile = "/dev/null";
        GLOBAL::rsyncCommand = "/bin/sh";
        Words words = {"skarn"};
        words.insert(words.end(), options.begin(), options.end());
        ExecVector arguments(words);
        GLOBAL::argc = static_cast<int>(words.size());
        GLOBAL::argv = const_cast<char**>(arguments.get());
        const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDERR_FILENO); // its complaints are not the test's
        const Daemon daemon;
        std::string text = GLOBAL::logFileName + "|" + std::to_string(GLOBAL::logFileMaxSize) +
                           "|" + std::to_string(GLOBAL::logFileMaxNumber) + "|" + GLOBAL::uid +
                           "|" + GLOBAL::gid + "|" + GLOBAL::usrdir + "\n";
        for (const auto& [id, worker] : daemon.detectors) {
            text += Revealed::describe(id, *worker);
        }
        writeUnchecked(ends[1], text);
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char part[4096];
    ssize_t got = 0;
    while ((got = read(ends[0], part, sizeof part)) > 0) {
        text.append(part, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    return text.empty() ? "refused" : text;
}

TEST_F(ConfigPlaces, HoldWhatTheDaemonTakesFromThem) {
    static const Words pieces = {"detectorID ",
                                 "detectorID\t",
                                 "\nminpause ",
                                 "\ninterrun_pause ",
                                 "\ntarget ",
                                 "\nsource ",
                                 "\nremoteIP ",
                                 "\nuid ",
                                 "\ngid\n",
                                 "\nusrdir ",
                                 "\nlogfile ",
                                 "\n",
                                 "\n",
                                 " ",
                                 "\t",
                                 "\r\n",
                                 "1",
                                 "-7",
                                 "99999999999",
                                 "10M",
                                 "/a/b",
                                 "/.",
                                 "x;b",
                                 "#",
                                 "$UID",
                                 "$GID",
                                 "x",
                                 "2",
                                 "\nlogfile_max_size ",
                                 "5abc"};
    static const std::vector<Words> options = {{},
                                               {"-u", "7:8"},
                                               {"-d", "1:/s:/t"},
                                               {"-d", "x:s:t", "-u", "1"},
                                               {"--user", "a::b", "-d", "2:'q:r':/t/"},
                                               {"-x"}};
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): foreseeable on purpose, a failure must repeat
    std::mt19937 random(19530821);
    std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
    int refused = 0;
    for (int i = 0; i < 60; ++i) {
        std::string text = "logfile /dev/null\n";
        for (int piece = 0; piece < 60; ++piece) {
            text += pieces[pick(random)];
        }
        const Words& chosen = options[pick(random) % options.size()];
        std::ofstream(configFilePaths()[0], std::ios::binary) << text;
        const LoadedConfiguration loaded = loadConfiguration(configFilePaths()[0], chosen);
        const std::string expected =
            loaded.configuration ? describe(*loaded.configuration) : "refused";
        refused += expected == "refused" ? 1 : 0;
        ASSERT_EQ(describeDaemon(chosen), expected) << text;
    }
    EXPECT_GT(refused, 5);
    EXPECT_LT(refused, 55);
}

TEST_F(ConfigPlaces, AreLookedAtInOrder) {
    std::ofstream(configFilePaths()[1]) << "";
    EXPECT_EQ(findConfigFile(), configFilePaths()[1]);
    std::ofstream(configFilePaths()[0]) << "";
    EXPECT_EQ(findConfigFile(), configFilePaths()[0]);
}

} // namespace

} // namespace control
