#ifndef TESTS_SUPPORT_OWNPROCESS_H
#define TESTS_SUPPORT_OWNPROCESS_H

#include <cstdlib>
#include <gtest/gtest.h>

/// Runs the statement in a new child process, which has no instance of the manager yet. The child ends as
/// main() would. For tests of an OwnProcess fixture.
#define EXPECT_IN_OWN_PROCESS(statement)                                                                     \
    EXPECT_EXIT(                                                                                             \
        {                                                                                                    \
            statement;                                                                                       \
            exit(testing::Test::HasFailure() ? 1 : 0);                                                       \
        },                                                                                                   \
        testing::ExitedWithCode(0), "")

/// Each child starts the program anew, so it inherits no threads.
class OwnProcess : public testing::Test
{
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#endif
