#ifndef TESTS_SUPPORT_ASUSER_H
#define TESTS_SUPPORT_ASUSER_H

#include <sys/syscall.h>
#include <sys/types.h>
#include <thread>
#include <unistd.h>

/// Calls act() on a thread that is another user, which only root can become. What it connects belongs to that
/// user. Returns false, and calls nothing, if this process may not.
template <class Act>
bool asUser(uid_t user, Act act)
{
    bool isUser = false;
    std::thread thread(
        [&]
        {
            isUser =
                syscall(SYS_setresuid, user, user, user) == 0; // of this thread alone, unlike setresuid()
            if (isUser)
                act();
        });
    thread.join();
    return isUser;
}

#endif
