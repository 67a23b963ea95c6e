// Linked into the broker that the tests run. With ANNOUNCED_SYNC in the environment, each wait for the
// storage prints a line, and lasts as long as the file of that name exists.

#include <cstdio>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

int announced(long call, int descriptor)
{
    if (const char* file = getenv("ANNOUNCED_SYNC"))
    {
        const bool held = access(file, F_OK) == 0;
        fputs(held ? "sync is held\n" : "sync\n", stderr);
        // The test removes the file. This sleep only paces the polling.
        while (access(file, F_OK) == 0)
            usleep(1000);
    }
    return static_cast<int>(syscall(call, descriptor));
}

} // namespace

// The program's definition takes precedence over the C library's, also for calls from SQLite.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor)
{
    return announced(SYS_fsync, descriptor);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor)
{
    return announced(SYS_fdatasync, descriptor);
}
