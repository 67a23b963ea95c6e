#ifndef STATUSFLEET_VERB_H
#define STATUSFLEET_VERB_H

#include <CLI/CLI.hpp>
#include <memory>

#include "daemon/Clock.h"
#include "mqttlink/ServerOptions.h"
#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"

/// What the commands get.
struct Call
{
    const Settings& settings;
    const ServerOptions& options;
    TimePoint deadline;
};

/// A command of the tool.
class IVerb
{
public:
    virtual ~IVerb() = default;

    /// @throws Failure
    virtual ExitCode run(const Call& call) = 0;
};

namespace Verbs
{

using Add = std::unique_ptr<IVerb> (*)(CLI::App& app);

std::unique_ptr<IVerb> addDevices(CLI::App& app);
std::unique_ptr<IVerb> addGet(CLI::App& app);
std::unique_ptr<IVerb> addDump(CLI::App& app);
std::unique_ptr<IVerb> addWatch(CLI::App& app);
std::unique_ptr<IVerb> addDesired(CLI::App& app);
std::unique_ptr<IVerb> addCommand(CLI::App& app);
std::unique_ptr<IVerb> addExport(CLI::App& app);

} // namespace Verbs

#endif
