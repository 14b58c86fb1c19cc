// Which service the kernel's text about a process names.
#include "control/service/service_unit.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace control {

namespace {

TEST(ServiceIn, FindsTheServiceOfEitherHierarchy) {
    EXPECT_EQ(serviceIn("0::/system.slice/skarn.service\n"), "skarn.service");
    EXPECT_EQ(serviceIn("12:cpu:/\n1:name=systemd:/system.slice/skarn.service\n0::/\n"),
              "skarn.service");
    EXPECT_EQ(serviceIn("0::/system.slice/skarn.service"), "skarn.service");
}

TEST(ServiceIn, FindsNoneWhereThereIsNone) {
    for (const char* const text :
         {"", "\n", "0::/\n", "0::/user.slice/user-0.slice/session-3.scope\n", "0::/.service\n",
          "4:memory:/system.slice/skarn.service\n", "skarn.service\n", "0::skarn.service\n",
          "0::/system.slice/skarn.service/inner\n"}) {
        EXPECT_EQ(serviceIn(text), "") << text;
    }
}

TEST(ManagingService, IsNeverTheOneThatThisProgramRunsIn) {
    EXPECT_EQ(managingService(getpid()), "");
}

} // namespace

} // namespace control
