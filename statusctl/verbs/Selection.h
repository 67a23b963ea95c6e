#ifndef STATUSCTL_VERBS_SELECTION_H
#define STATUSCTL_VERBS_SELECTION_H

#include <cstdint>
#include <string>
#include <vector>

#include "statusctl/device/Change.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/verbs/Verb.h"

/// The part of a command line that says which keys and events to follow, and how many of their changes.
class Selection
{
public:
    /// Adds KEY..., --event NAME, --only and -n COUNT to the command.
    explicit Selection(CLI::App& command);

    /// To be called when the command line has been read.
    /// @throws CLI::ValidationError if it makes no sense
    void check() const;

    /// Both match everything if neither was given.
    Pattern keys() const;
    Pattern events() const;

    /// To be called with each change, in order.
    /// @returns whether another one is wanted
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
