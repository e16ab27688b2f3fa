// Has the model checker look at the lock protocol, in the bounded form of tests/model/run.sh.
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(FileLockModel, HoldsWhereItShouldAndFailsWhereItMust) {
    if (std::system("command -v spin >/dev/null && command -v cc >/dev/null") != 0) {
        GTEST_SKIP() << "spin or a C compiler is missing";
    }
    EXPECT_EQ(std::system("\"" RL_MODEL_DIRECTORY "/run.sh\" quick"), 0);
}

} // namespace
