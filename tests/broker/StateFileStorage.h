#ifndef TESTS_BROKER_STATEFILESTORAGE_H
#define TESTS_BROKER_STATEFILESTORAGE_H

#include <cerrno>
#include <fcntl.h>

#include "tests/broker/StateFileFixture.h"

/// Helpers for tests of state files that cannot be opened, or not for writing.

class StateFileStorageTest : public StateFileFixture
{
};

using OpenCall = int (*)(const char*, int, int);
inline OpenCall plainOpen = nullptr;

inline int openForReading(const char* path, int flags, int mode)
{
    if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_CREAT) == 0)
        return plainOpen(path, flags, mode);
    errno = EROFS;
    return -1;
}

/// While it lives, SQLite can neither open nor create a file for writing.
class ReadOnlyStorage
{
public:
    ReadOnlyStorage()
    {
        plainOpen = reinterpret_cast<OpenCall>(mSystem->xGetSystemCall(mSystem, "open"));
        mSystem->xSetSystemCall(mSystem, "open", reinterpret_cast<sqlite3_syscall_ptr>(openForReading));
    }
    ~ReadOnlyStorage() { mSystem->xSetSystemCall(mSystem, "open", nullptr); }

    ReadOnlyStorage(const ReadOnlyStorage&) = delete;
    ReadOnlyStorage& operator=(const ReadOnlyStorage&) = delete;

private:
    sqlite3_vfs* mSystem = sqlite3_vfs_find(nullptr);
};

inline bool isCommittedInTheEnd(StateFile& file)
{
    return eventually(
        [&]
        {
            file.commit({}, thisBoot);
            return file.commits() == 1;
        });
}

#endif
