// In the broker that the tests run: with ANNOUNCED_SYNC in the environment, each wait for the storage is
// announced, and takes as long as the file of that name is there.

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
        // The test removes the file. This pause is the pace of looking, not a wait for a test to get ready.
        while (access(file, F_OK) == 0)
            usleep(1000);
    }
    return static_cast<int>(syscall(call, descriptor));
}

} // namespace

// A definition in the program is found before the C library's, from SQLite, too.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor)
{
    return announced(SYS_fsync, descriptor);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor)
{
    return announced(SYS_fdatasync, descriptor);
}
