#include "tests/support/BrokerProcess.h"

#include <csignal>
#include <stdexcept>

namespace
{

// STATUSBROKER is the path of a broker that cannot set the clock: see tests/broker/CMakeLists.txt.
std::vector<std::string> commandOf(const std::vector<std::string>& options,
                                   const std::vector<std::string>& launcher)
{
    std::vector<std::string> command = launcher;
    command.emplace_back(STATUSBROKER);
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

} // namespace

BrokerProcess::BrokerProcess(const std::vector<std::string>& options,
                             const std::vector<std::string>& launcher)
    : mProcess(commandOf(options, launcher))
{
    const bool serving = eventually(
        [this]
        {
            return mProcess.errors().find("Serving") != std::string::npos ||
                   mProcess.waitForExit(std::chrono::milliseconds(0)).has_value();
        });
    if (!serving || mProcess.waitForExit(std::chrono::milliseconds(0)))
        throw std::runtime_error("the broker did not start: " + mProcess.errors());
}

int BrokerProcess::stop()
{
    mProcess.signal(SIGTERM);
    return mProcess.waitForExit().value_or(-1);
}

void BrokerProcess::kill()
{
    mProcess.signal(SIGKILL);
    mProcess.waitForExit();
}
