#ifndef TESTS_SUPPORT_ASUSER_H
#define TESTS_SUPPORT_ASUSER_H

#include <sys/syscall.h>
#include <sys/types.h>
#include <thread>
#include <unistd.h>

/// Calls act() on a thread that runs as another user, so that connections made there belong to that user.
/// Only root may do that: otherwise it calls nothing and returns false.
template <class Act>
bool asUser(uid_t user, Act act)
{
    bool isUser = false;
    std::thread thread(
        [&]
        {
            isUser = syscall(SYS_setresuid, user, user, user) == 0; // of this thread; setresuid() changes all
            if (isUser)
                act();
        });
    thread.join();
    return isUser;
}

#endif
