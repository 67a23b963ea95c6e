#ifndef TESTS_HELPERS_WATCHEDMANAGER_H
#define TESTS_HELPERS_WATCHEDMANAGER_H

#include <cstddef>

#include "tests/statusmanager/TestManager.h"

/// A manager whose registry the test can inspect.
class WatchedManager : public TestManager
{
public:
    ~WatchedManager() override { mThread.stop(); } // the queue must not run while only the base class is left

    std::size_t listeners()
    {
        std::size_t count = 0;
        onThread([&] { count = mListeners.size(); });
        return count;
    }
};

#endif
