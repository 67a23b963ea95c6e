#ifndef STATUSCTL_VERBS_FOLLOWING_H
#define STATUSCTL_VERBS_FOLLOWING_H

#include <string>

#include "statusctl/device/Device.h"
#include "statusctl/verbs/Verb.h"

/// The part that commands share which run until they have seen enough: they wait for the broker, too, so that
/// a boot script needs no loop around them, and an interrupt ends them also in the background.
class Following
{
public:
    /// Adds --no-wait-broker to the command.
    explicit Following(CLI::App& command);

    CLI::Option* option() const { return mOption; }

    /// Connects to the broker, as soon as there is one.
    /// @throws Failure if there is none within the time of -t, or at once with --no-wait-broker
    Device connect(const Settings& settings) const;

    /// The end by the time of -t.
    static Failure timedOut(const Settings& settings, const std::string& reason = "");

private:
    CLI::Option* mOption = nullptr;
    bool mIsImpatient = false;
};

#endif
