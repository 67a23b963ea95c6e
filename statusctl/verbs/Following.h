#ifndef STATUSCTL_VERBS_FOLLOWING_H
#define STATUSCTL_VERBS_FOLLOWING_H

#include <string>

#include "statusctl/device/Device.h"
#include "statusctl/verbs/Verb.h"

/// Shared by commands that run until they have seen enough. They wait for the broker, so that a boot script
/// needs no loop. An interrupt ends them even in the background.
class Following
{
public:
    /// Adds --no-wait-broker to the command.
    explicit Following(CLI::App& command);

    CLI::Option* option() const { return mOption; }

    /// Connects to the broker as soon as it runs.
    /// @throws Failure if none runs within the time of -t, or at once with --no-wait-broker
    Device connect(const Settings& settings) const;

    /// The failure when the time of -t is over.
    static Failure timedOut(const Settings& settings, const std::string& reason = "");

private:
    CLI::Option* mOption = nullptr;
    bool mIsImpatient = false;
};

#endif
