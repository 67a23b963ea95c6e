#ifndef TESTS_SUPPORT_OWNPROCESS_H
#define TESTS_SUPPORT_OWNPROCESS_H

#include <cstdlib>
#include <gtest/gtest.h>

/// Runs the case in a fresh child, which has no instance of the manager yet, and ends it like main() does.
/// Inside a test of an OwnProcess fixture.
#define EXPECT_IN_OWN_PROCESS(statement)                                                                     \
    EXPECT_EXIT(                                                                                             \
        {                                                                                                    \
            statement;                                                                                       \
            exit(testing::Test::HasFailure() ? 1 : 0);                                                       \
        },                                                                                                   \
        testing::ExitedWithCode(0), "")

/// The child starts the program anew, so it has only threads of its own.
class OwnProcess : public testing::Test
{
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#endif
