#ifndef TESTS_SUPPORT_BROKERPROCESS_H
#define TESTS_SUPPORT_BROKERPROCESS_H

#include <string>
#include <vector>

#include "tests/support/TestProcess.h"

/// A real broker, serving when the constructor returns. Throws std::runtime_error with the broker's own words
/// if it does not come up, for example because the ports are taken.
class BrokerProcess
{
public:
    explicit BrokerProcess(const std::vector<std::string>& options = {});

    TestProcess& process() { return mProcess; }

    /// Asks it to end, and returns its exit code.
    int stop();

    /// Ends it at once, as a crash would.
    void kill();

private:
    TestProcess mProcess;
};

#endif
