#ifndef TESTS_BRIDGE_MQTTSERVER_H
#define TESTS_BRIDGE_MQTTSERVER_H

#include <optional>
#include <string>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestProcess.h"

/// A port of loopback that nobody listens on.
int freePort();

/// A real MQTT server on loopback. It keeps retained messages over a restart.
class MqttServer
{
public:
    /// Starts it. Throws std::runtime_error if it does not start.
    /// @param options lines of its configuration, in addition to the listener's port
    explicit MqttServer(const std::string& options = "allow_anonymous true\n");

    int port() const { return mPort; }

    /// What it has logged since its start.
    std::string log() const;

    /// Waits until it has logged the text.
    bool waitForLog(const std::string& text) const;

    void start();
    void stop(int signal);

private:
    TemporaryFolder mFolder;
    const int mPort = freePort();
    std::optional<TestProcess> mProcess;
};

#endif
