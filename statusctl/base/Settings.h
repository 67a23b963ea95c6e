#ifndef STATUSCTL_BASE_SETTINGS_H
#define STATUSCTL_BASE_SETTINGS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// The options that all commands share. statusfleet has the same.
struct Settings
{
    enum class Json
    {
        Off,
        Short,  ///< on one line
        Pretty, ///< indented; streams are always one object a line
    };

    std::string program = "statusctl";
    std::string verb; ///< empty until the command is known
    std::optional<std::chrono::milliseconds> timeout;
    Json json = Json::Off;
    bool quiet = false;
    bool color = false;
    std::vector<std::string> command; ///< the words behind "--", for a command that runs another program

    bool isJson() const { return json != Json::Off; }
    std::chrono::milliseconds requestTimeout() const { return timeout.value_or(std::chrono::seconds(5)); }
};

#endif
