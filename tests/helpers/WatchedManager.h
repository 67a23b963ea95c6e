#ifndef TESTS_HELPERS_WATCHEDMANAGER_H
#define TESTS_HELPERS_WATCHEDMANAGER_H

#include <cstddef>

#include "tests/statusmanager/TestManager.h"

/// A manager whose registry a test can look into.
class WatchedManager : public TestManager
{
public:
    ~WatchedManager() override
    {
        mThread.stop();
    } // what is queued must not run while this turns into its base

    std::size_t listeners()
    {
        std::size_t count = 0;
        onThread([&] { count = mListeners.size(); });
        return count;
    }
};

#endif
