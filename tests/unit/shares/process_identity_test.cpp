// How a process is told from others, dead ones and later ones with its number.
#include "shares/process_identity.h"

#include <csignal>
#include <ctime>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confirming {
namespace {

TEST(ProcessStatus, IsReadBehindAnyName) {
    const std::string numbers = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 8675309 20 21\n";
    for (const char* name : {"(skarn)", "(a b)", "(:-) S 1)", "())", "(new\nline)"}) {
        const auto status = parseProcessStatus("42 " + std::string(name) + numbers);
        ASSERT_TRUE(status) << name;
        EXPECT_EQ(status->state, 'S') << name;
        EXPECT_EQ(status->group, 2) << name;
        EXPECT_EQ(status->start, 8675309U) << name;
    }
}

TEST(ProcessStatus, IsNoneInAnyOtherForm) {
    for (const char* text : {"", "42", "42 (x", "42 (x)", "42 (x) S", "42 (x) S 1 2 3 4 5 6 7 8 9",
                             "42 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 x9 20",
                             "42 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 9x 20"}) {
        EXPECT_FALSE(parseProcessStatus(text)) << text;
    }
}

TEST(ProcessIdentity, IsThatOfALivingProcess) {
    const auto self = identityOf(::getpid());
    ASSERT_TRUE(self);
    EXPECT_EQ(self->pid, ::getpid());
    EXPECT_GT(self->boot.size(), 10U);
    EXPECT_FALSE(isDead(*self));
}

TEST(ProcessIdentity, IsNotThatOfALaterProcessWithTheSameNumber) {
    auto self = identityOf(::getpid());
    ASSERT_TRUE(self);
    ProcessIdentity earlier = *self;
    --earlier.start;
    EXPECT_TRUE(isDead(earlier));
    EXPECT_FALSE(earlier == *self);
    ProcessIdentity ofAnotherBoot = *self;
    ofAnotherBoot.boot += "x";
    EXPECT_TRUE(isDead(ofAnotherBoot));
    EXPECT_FALSE(ofAnotherBoot == *self);
}

TEST(ProcessIdentity, IsDeadOnceTheProcessHasEnded) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    const auto identity = identityOf(child);
    ASSERT_TRUE(identity);
    EXPECT_FALSE(isDead(*identity));
    ::kill(child, SIGKILL);
    // Ended, and nobody has waited for it.
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(isDead(*identity));
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(isDead(*identity));
    EXPECT_FALSE(identityOf(child));
}

TEST(ProcessIdentity, IsDeadIfNoProcessHasTheNumber) {
    auto self = identityOf(::getpid());
    ASSERT_TRUE(self);
    self->pid = 1 << 30; // beyond what the system gives
    EXPECT_TRUE(isDead(*self));
}

TEST(ProcessIdentity, IsNotDeadBecauseTheSystemDoesNotTell) {
    const auto self = identityOf(::getpid());
    ASSERT_TRUE(self);
    ProcessIdentity another = *self;
    another.pid = 1;
    another.start = ~std::uint64_t{0}; // it is another process if anything can be read of it
    ASSERT_TRUE(isDead(another));
    // No descriptor is left to read anything with.
    struct rlimit before {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    struct rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool isAnotherDead = isDead(another);
    ProcessIdentity ofAnotherBoot = *self;
    ofAnotherBoot.boot += "x";
    const bool isOfAnotherBootDead = isDead(ofAnotherBoot);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(isAnotherDead);
    EXPECT_FALSE(isOfAnotherBootDead);
}

TEST(SecondOfBoot, IsReadAmongOtherNumbers) {
    EXPECT_EQ(parseSecondOfBoot("cpu 1 2\nctxt 3\nbtime 1795000000\nprocesses 4\n"), 1795000000);
    EXPECT_EQ(parseSecondOfBoot("cpu 1 2\nbtime 1795000000"), 1795000000);
    for (const char* text : {"", "cpu 1 2\n", "cpu 1 2\nbtime \n", "cpu 1\nbtime x\n",
                             "cpu 1\nbtime 17x\n", "cpu 1\nxbtime 17\n"}) {
        EXPECT_FALSE(parseSecondOfBoot(text)) << text;
    }
}

TEST(SecondOfBoot, IsBeforeNow) {
    const auto boot = secondOfBoot();
    ASSERT_TRUE(boot);
    const auto now = static_cast<std::int64_t>(::time(nullptr));
    EXPECT_LE(*boot, now);
    // The second in which it was may differ by one, depending on who counts.
    EXPECT_NEAR(static_cast<double>(now - *boot), static_cast<double>(nanosecondsSinceBoot()) / 1e9,
                2);
}

TEST(SinceBoot, IsWhatIsAfterItsSecondAndNotInTheFuture) {
    EXPECT_FALSE(isSinceBoot(99, 100, 200));
    EXPECT_FALSE(isSinceBoot(100, 100, 200));
    EXPECT_TRUE(isSinceBoot(101, 100, 200));
    EXPECT_TRUE(isSinceBoot(200, 100, 200));
    EXPECT_FALSE(isSinceBoot(201, 100, 200));
    EXPECT_FALSE(isSinceBoot(150, std::nullopt, 200));
}

TEST(NanosecondsSinceBoot, Grow) {
    const std::uint64_t before = nanosecondsSinceBoot();
    EXPECT_GT(before, 0U);
    EXPECT_GE(nanosecondsSinceBoot(), before);
}

} // namespace
} // namespace confirming
