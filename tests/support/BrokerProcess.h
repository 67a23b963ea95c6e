#ifndef TESTS_SUPPORT_BROKERPROCESS_H
#define TESTS_SUPPORT_BROKERPROCESS_H

#include <string>
#include <vector>

#include "tests/support/TestProcess.h"

/// A real broker. It serves when the constructor returns. Throws std::runtime_error with the broker's output
/// if it does not start, for example because the ports are taken.
class BrokerProcess
{
public:
    /// @param launcher a command that runs the broker, such as setpriv with its options; empty: none
    explicit BrokerProcess(const std::vector<std::string>& options = {},
                           const std::vector<std::string>& launcher = {});

    TestProcess& process() { return mProcess; }

    /// Asks the broker to end, and returns its exit code.
    int stop();

    /// Kills the broker, as a crash would.
    void kill();

private:
    TestProcess mProcess;
};

#endif
