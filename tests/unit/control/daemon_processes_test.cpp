// Which evidence makes a process the daemon or one of its copy processes.
#include "control/service/daemon_processes.h"
#include "daemon/global.h"

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

using testing::IsEmpty;
using Kind = Judgement::Kind;

constexpr double written = 1000000;
const FileId daemonFile{1, 11};
const FileId copyFile{1, 22};
const Program daemonProgram{"/usr/sbin/skarn", daemonFile, false};
const Program copyProgram{"/usr/local/orbelin/bin/rsync_orbelin", copyFile, false};
const EndedDaemon ended{812, written - 100, written};

/// A daemon as it should be.
Evidence daemon() {
    Evidence evidence;
    evidence.process = {812, 1, 812, 812, 'S', 500, "skarn"};
    evidence.started = written - 100;
    evidence.executable = "/usr/sbin/skarn";
    evidence.executed = daemonFile;
    evidence.words = {"/usr/sbin/skarn", "-u", "1:2"};
    return evidence;
}

/// A copy process of it as it should be once the daemon has ended.
Evidence copyProcess() {
    Evidence evidence;
    evidence.process = {905, 1, 905, 905, 'S', 600, "rsync_orbelin"};
    evidence.started = written - 1;
    evidence.executable = copyProgram.path;
    evidence.executed = copyFile;
    evidence.words = {copyProgram.path, "-v", "--files-from=/tmp/file_list_812_-17_0",
                      "rsync://root@10.0.0.1:49371/ramdisk/", "/data/./"};
    return evidence;
}

Judgement judge(const Evidence& evidence) {
    return judgeDaemonProgram(evidence, daemonProgram);
}

Judgement judgeCopy(const Evidence& evidence) {
    return judgeOrphan(evidence, copyProgram, ended);
}

TEST(JudgeDaemon, KnowsTheDaemon) {
    EXPECT_EQ(judge(daemon()).kind, Kind::confirmed);
}

TEST(JudgeDaemon, WantsItToRun) {
    for (const char state : {'Z', 'X'}) {
        Evidence evidence = daemon();
        evidence.process.state = state;
        EXPECT_EQ(judge(evidence).kind, Kind::refuted);
        EXPECT_EQ(judge(evidence).reason, "has ended");
    }
}

TEST(JudgeDaemon, WantsASessionAndAGroupOfItsOwn) {
    Evidence evidence = daemon();
    evidence.process.session = 811;
    EXPECT_EQ(judge(evidence).reason, "leads no session of its own");
    evidence = daemon();
    evidence.process.group = 811;
    EXPECT_EQ(judge(evidence).reason, "leads no session of its own");
}

TEST(JudgeDaemon, TakesNoProgramForItByItsName) {
    Evidence evidence = daemon();
    evidence.executed = FileId{1, 12};
    evidence.executable = "/srv/elsewhere/skarn";
    EXPECT_EQ(judge(evidence).kind, Kind::refuted);
    EXPECT_EQ(judge(evidence).reason, "runs another program (/srv/elsewhere/skarn)");
    evidence.executable = "/usr/sbin/skarn2";
    EXPECT_FALSE(judge(evidence));
    evidence.executable = "/usr/sbin/skarn (deleted) (deleted)";
    EXPECT_FALSE(judge(evidence));
}

TEST(JudgeDaemon, KnowsAnExecutableThatWasReplaced) {
    Evidence evidence = daemon();
    evidence.executable = "/usr/sbin/skarn (deleted)";
    evidence.executed = FileId{1, 12};
    EXPECT_TRUE(judge(evidence));
}

TEST(JudgeDaemon, KnowsTheSameFileUnderAnotherPath) {
    Evidence evidence = daemon();
    evidence.executable = "/opt/skarn/sbin/skarn";
    EXPECT_TRUE(judge(evidence));
    evidence.executed = FileId{2, 11};
    EXPECT_FALSE(judge(evidence)) << "another device";
    evidence.executed = std::nullopt;
    EXPECT_FALSE(judge(evidence));
}

TEST(JudgeDaemon, TakesTwoFilesThatAreNotThereForDifferentOnes) {
    Evidence evidence = daemon();
    evidence.executable = "/elsewhere/skarn (deleted)";
    evidence.executed = std::nullopt;
    EXPECT_FALSE(judgeDaemonProgram(evidence, Program{"/usr/sbin/skarn", std::nullopt, false}));
}

TEST(JudgeDaemon, SaysThatItMayNotLook) {
    Evidence evidence = daemon();
    evidence.executable = "";
    evidence.executed = std::nullopt;
    EXPECT_EQ(judge(evidence).kind, Kind::hidden);
    EXPECT_FALSE(judge(evidence));
}

TEST(JudgeDaemon, IsNotTakenInByAContainer) {
    Evidence evidence = daemon();
    evidence.sameNamespace = false;
    EXPECT_EQ(judge(evidence).reason, "belongs to another pid namespace");
}

TEST(JudgeDaemon, NeverMeansItself) {
    Evidence evidence = daemon();
    evidence.process.pid = evidence.process.session = evidence.process.group = getpid();
    EXPECT_EQ(judge(evidence).reason, "is skarnctl itself");
}

TEST(JudgeChild, WantsAChildWithASessionOfItsOwn) {
    Evidence evidence = copyProcess();
    evidence.process.parent = 812;
    EXPECT_TRUE(judgeChild(evidence, daemon()));
    evidence.process.parent = 1;
    EXPECT_EQ(judgeChild(evidence, daemon()).reason, "is no child of the daemon");
    evidence.process.parent = 812;
    evidence.process.session = 812;
    EXPECT_EQ(judgeChild(evidence, daemon()).reason, "leads no session of its own");
    evidence = copyProcess();
    evidence.process.parent = 812;
    evidence.process.startTicks = 499;
    EXPECT_EQ(judgeChild(evidence, daemon()).reason, "started before the daemon");
    evidence = copyProcess();
    evidence.process.parent = 812;
    evidence.process.state = 'Z';
    EXPECT_EQ(judgeChild(evidence, daemon()).reason, "has ended");
}

TEST(JudgeOrphan, KnowsACopyProcess) {
    EXPECT_EQ(judgeCopy(copyProcess()).kind, Kind::confirmed);
}

TEST(JudgeOrphan, WantsAFileListOfThatDaemon) {
    for (const std::string list :
         {"--files-from=/tmp/file_list_8123_-17_0", "--files-from=/tmp/file_list_81_2_0",
          "--files-from=/tmp/file_list_812", "/tmp/file_list_812_-17_0",
          "--files-from=/var/tmp/file_list_812_-17_0", "x--files-from=/tmp/file_list_812_-17_0"}) {
        Evidence evidence = copyProcess();
        evidence.words[2] = list;
        EXPECT_EQ(judgeCopy(evidence).reason, "has no file list of the daemon") << list;
    }
    Evidence evidence = copyProcess();
    evidence.words = {};
    EXPECT_FALSE(judgeCopy(evidence));
}

TEST(JudgeOrphan, WantsTheCopyProgram) {
    Evidence evidence = copyProcess();
    evidence.executable = "/usr/bin/rsync";
    evidence.executed = FileId{1, 23};
    EXPECT_EQ(judgeCopy(evidence).reason, "runs another program (/usr/bin/rsync)");
    evidence.executable = "";
    evidence.executed = std::nullopt;
    EXPECT_EQ(judgeCopy(evidence).kind, Kind::hidden);
}

TEST(JudgeOrphan, KnowsAScriptByItsPathBehindTheInterpreter) {
    Program script = copyProgram;
    script.isScript = true;
    Evidence evidence = copyProcess();
    evidence.executable = "/usr/bin/bash";
    evidence.executed = FileId{1, 24};
    EXPECT_FALSE(judgeOrphan(evidence, copyProgram, ended)) << "it is no script";
    evidence.words.insert(evidence.words.begin(), {"/bin/bash", "-e"});
    ASSERT_EQ(evidence.words[2], GLOBAL::rsyncCommand);
    EXPECT_TRUE(judgeOrphan(evidence, script, ended));
    evidence.words.insert(evidence.words.begin(), "x");
    EXPECT_FALSE(judgeOrphan(evidence, script, ended)) << "an argument of something else";
}

TEST(JudgeOrphan, WantsTheTimesToFit) {
    Evidence evidence = copyProcess();
    evidence.started = written + 3;
    EXPECT_EQ(judgeCopy(evidence).reason, "started after the PID file was written");
    evidence.started = written - 103;
    EXPECT_EQ(judgeCopy(evidence).reason, "started before the daemon");
    EXPECT_TRUE(judgeOrphan(evidence, copyProgram, EndedDaemon{812, 0, written}));
}

TEST(JudgeOrphan, WantsTheRestAsForADaemon) {
    Evidence evidence = copyProcess();
    evidence.process.session = 812;
    EXPECT_EQ(judgeCopy(evidence).reason, "leads no session of its own");
    evidence = copyProcess();
    evidence.process.state = 'Z';
    EXPECT_EQ(judgeCopy(evidence).reason, "has ended");
    evidence = copyProcess();
    evidence.sameNamespace = false;
    EXPECT_FALSE(judgeCopy(evidence));
    evidence = copyProcess();
    evidence.process.parent = 812;
    EXPECT_EQ(judgeCopy(evidence).reason, "is a child of what has the daemon's number now");
}

TEST(ProgramAt, ResolvesLinksAndKnowsScripts) {
    const std::string folder = "/tmp/programs";
    mkdir(folder.c_str(), 0755);
    std::ofstream(folder + "/script") << "#!/bin/sh\n";
    std::ofstream(folder + "/short") << "#";
    ASSERT_EQ(symlink("script", (folder + "/link").c_str()), 0);

    const Program script = programAt(folder + "/./link");
    EXPECT_EQ(script.path, folder + "/script");
    EXPECT_TRUE(script.isScript);
    EXPECT_EQ(script.identity, fileIdOf(folder + "/script"));
    EXPECT_FALSE(programAt(folder + "/short").isScript);

    const Program missing = programAt(folder + "/nowhere/skarn");
    EXPECT_EQ(missing.path, folder + "/nowhere/skarn");
    EXPECT_EQ(missing.identity, std::nullopt);
    EXPECT_FALSE(programAt(folder).isScript);
}

TEST(GatherEvidence, GivesNothingForNobody) {
    EXPECT_EQ(gatherEvidence(0), std::nullopt);
    EXPECT_EQ(gatherEvidence(-1), std::nullopt);
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(gatherEvidence(pid), std::nullopt);
    EXPECT_TRUE(gatherEvidence(getpid()));
}

TEST(FindSessionMembers, FindsThemWhetherTheLeaderLivesOrNot) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t leader = fork();
    if (leader == 0) {
        setsid();
        const pid_t member = fork();
        if (member == 0) {
            setpgid(0, 0);
            while (true) {
                pause();
            }
        }
        if (write(ends[1], &member, sizeof member) < 0) {
            _exit(1);
        }
        while (true) {
            pause();
        }
    }
    pid_t member = 0;
    ASSERT_EQ(read(ends[0], &member, sizeof member), static_cast<ssize_t>(sizeof member));
    close(ends[0]);
    close(ends[1]);
    const auto process = readProcess(leader);
    ASSERT_TRUE(process);

    const auto found = findSessionMembers(*process);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].pid, member);

    Process heir = *process;
    heir.startTicks -= 1;
    EXPECT_THAT(findSessionMembers(heir), IsEmpty()) << "the number belongs to somebody else";

    kill(leader, SIGKILL);
    waitpid(leader, nullptr, 0);
    const auto left = findSessionMembers(*process);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].pid, member);
    kill(member, SIGKILL);
}

TEST(ListOfPids, ReadsAsASentenceWould) {
    std::vector<Process> processes;
    EXPECT_EQ(listOfPids(processes), "");
    processes.resize(1);
    processes[0].pid = 812;
    EXPECT_EQ(listOfPids(processes), "812");
    processes.resize(2);
    processes[1].pid = 813;
    EXPECT_EQ(listOfPids(processes), "812 and 813");
    processes.resize(3);
    processes[2].pid = 814;
    EXPECT_EQ(listOfPids(processes), "812, 813 and 814");
}

} // namespace

} // namespace control
