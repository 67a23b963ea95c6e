#ifndef STATUSCTL_VERBS_SELECTION_H
#define STATUSCTL_VERBS_SELECTION_H

#include <cstdint>
#include <string>
#include <vector>

#include "statusctl/device/Change.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/verbs/Verb.h"

/// The arguments that select keys and events, and how many of their changes to take.
class Selection
{
public:
    /// Adds KEY..., --event NAME, --only and -n COUNT to the command.
    explicit Selection(CLI::App& command);

    /// Call it when the command line has been read.
    /// @throws CLI::ValidationError if the arguments contradict each other
    void check() const;

    /// Both match everything if no key and no event was given.
    Pattern keys() const;
    Pattern events() const;

    /// Call it with each change, in order.
    /// @returns whether another change is wanted
    bool wantsMoreAfter(const Change& change);

private:
    bool isEverything() const { return mKeys.empty() && mEvents.empty(); }

    std::vector<std::string> mKeys;
    std::vector<std::string> mEvents;
    std::string mOnly;   // status, event, or empty
    uint64_t mCount = 0; // no limit
    uint64_t mSeen = 0;
};

#endif
