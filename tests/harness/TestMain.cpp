// The main of every test program: GoogleTest with one addition, a listener that gives each test
// a configuration directory and a role of its own (TestMachine), so that tests and test programs
// run in any order and side by side.
#include "tests/harness/TestMachine.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

class Isolation : public ::testing::EmptyTestEventListener {
public:
    // Brief output leaves the seed out, and a shuffled order that failed must be repeatable.
    void OnTestIterationStart(::testing::UnitTest const &unit, int) override {
        if (GTEST_FLAG_GET(shuffle)) {
            std::printf("Tests shuffled with seed %d (GTEST_RANDOM_SEED=%d repeats the order).\n",
                        unit.random_seed(), unit.random_seed());
            std::fflush(stdout);
        }
    }
    void OnTestStart(::testing::TestInfo const &) override { TestMachine::beginTest(); }
    void OnTestEnd(::testing::TestInfo const &) override { TestMachine::endTest(); }
};

}  // namespace

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new Isolation);
    return RUN_ALL_TESTS();
}
