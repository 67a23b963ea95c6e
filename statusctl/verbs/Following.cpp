#include "statusctl/verbs/Following.h"

#include <cstdio>
#include <unistd.h>

#include "statusctl/base/Ending.h"
#include "statusctl/device/Ports.h"
#include "statusctl/text/Duration.h"

namespace
{

// Only for people, who would wonder about the silence. Scripts take a line on standard error for a failure.
void tellOfWaiting(const Settings& settings)
{
    if (!settings.quiet && !settings.isJson() && isatty(STDERR_FILENO) != 0 && Ports::firstClosed())
        std::fprintf(stderr, "statusctl: %s: waiting for the broker\n", settings.verb.c_str());
}

} // namespace

Following::Following(CLI::App& command)
    : mOption(command.add_flag("--no-wait-broker", mIsImpatient,
                               "Exit with code 4 at once if no broker runs, instead of waiting for a broker"))
{
}

Device Following::connect(const Settings& settings) const
{
    obeyInterrupts();
    if (mIsImpatient)
        return Device(settings);
    tellOfWaiting(settings);
    return Device(settings, Device::WithoutBroker::Wait);
}

Failure Following::timedOut(const Settings& settings, const std::string& reason)
{
    return {ExitCode::TimedOut, "timed out after " + Duration::writeExactly(*settings.timeout) +
                                    (reason.empty() ? "" : ": " + reason)};
}
