// The end of a process's descendants. Each test does that in a process of its own.

#include <chrono>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "statusctl/base/Descendants.h"
#include "statusctl/base/Failure.h"
#include "statusctl/base/PrivateNetwork.h"

namespace
{

constexpr int allEnded = 0;
constexpr int someLeft = 1;

// Then the tests are skipped: kernels may keep namespaces to root. They always run as root, as on the build
// server.
constexpr int noNamespaces = 2;

void startSleeper()
{
    if (fork() == 0)
    {
        alarm(60); // ends it if nothing else does
        for (;;)
            pause();
    }
}

[[noreturn]] void endSleeper(std::chrono::milliseconds patience)
{
    Descendants descendants;
    try
    {
        enterPrivateNetwork();
    }
    catch (const Failure&)
    {
        _exit(noNamespaces);
    }
    startSleeper();
    const bool hasEnded = descendants.end(patience);
    _exit(hasEnded ? allEnded : someLeft);
}

int resultOf(std::chrono::milliseconds patience)
{
    const pid_t process = fork();
    if (process == 0)
        endSleeper(patience);
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(DescendantsTest, childrenAreEnded)
{
    const int result = resultOf(std::chrono::seconds(30));
    if (result == noNamespaces)
        GTEST_SKIP() << "this kernel does not let this user create namespaces";
    EXPECT_EQ(result, allEnded);
}

// Otherwise programs that start others all the time would keep it from returning. Without patience it ends
// the child too, but does not look whether the child has left any.
TEST(DescendantsTest, thePatienceIsLimited)
{
    const int result = resultOf(std::chrono::seconds(0));
    if (result == noNamespaces)
        GTEST_SKIP() << "this kernel does not let this user create namespaces";
    EXPECT_EQ(result, someLeft);
}
