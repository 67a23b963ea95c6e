#ifndef TESTS_MEMORY_BELONGINGS_H
#define TESTS_MEMORY_BELONGINGS_H

#include <filesystem>
#include <iterator>

#include "common/TrackedNew.h"
#include "tests/support/Wait.h"

/// The resources of its process that a client takes beside memory, and must give back.
struct Belongings
{
    std::ptrdiff_t threads = entries("/proc/self/task");
    std::ptrdiff_t files = entries("/proc/self/fd");
    unsigned agents = trackedObjects();

    /// Agents and managers that exist.
    static unsigned trackedObjects()
    {
        unsigned live = 0;
        for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
            live += site->live();
        return live;
    }

    /// Whether the process comes back to this. The broker's side of connections ends some time after the
    /// client's.
    bool areAllThereIs() const
    {
        return eventually(
            [this]
            {
                const Belongings now;
                return now.threads <= threads && now.files <= files && now.agents <= agents;
            });
    }

private:
    static std::ptrdiff_t entries(const char* folder)
    {
        const std::filesystem::directory_iterator all(folder);
        return std::distance(begin(all), end(all));
    }
};

#endif
