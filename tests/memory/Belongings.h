#ifndef TESTS_MEMORY_BELONGINGS_H
#define TESTS_MEMORY_BELONGINGS_H

#include <filesystem>
#include <iterator>

#include "common/TrackedNew.h"
#include "tests/support/Wait.h"

/// The resources besides memory that a client takes from its process, and must return.
struct Belongings
{
    std::ptrdiff_t threads = entries("/proc/self/task");
    std::ptrdiff_t files = entries("/proc/self/fd");
    unsigned agents = trackedObjects();

    /// The number of agents and managers that exist.
    static unsigned trackedObjects()
    {
        unsigned live = 0;
        for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
            live += site->live();
        return live;
    }

    /// Whether the process returns to these numbers. The broker's side of a connection ends a little after
    /// the client's.
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
