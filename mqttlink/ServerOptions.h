#ifndef MQTTLINK_SERVEROPTIONS_H
#define MQTTLINK_SERVEROPTIONS_H

#include <chrono>
#include <string>

#include "daemon/Setting.h"

/// Which server, and how to prove to it who one is.
struct ServerOptions
{
    std::string server; ///< see ServerName
    int port = 0;       ///< 0: the usual one
    std::string prefix = "fleet";
    std::string clientId; ///< empty: the user of these options chooses it
    bool isVersion5 = true;
    std::chrono::seconds keepAlive{60};

    bool isInsecure = false;
    std::string ca = "/etc/ssl/certs"; ///< a file, or a folder
    std::string certificate;
    std::string key;       ///< a file, or the engine's name of the key
    std::string keyEngine; ///< of OpenSSL, that holds the key; empty: none
    std::string alpn;
    std::string user;
    std::string passwordFile;

    int effectivePort() const;

    /// The mistake that no single line has; empty if there is none.
    std::string mistake() const;

    /// Looks for files without a folder among the credentials that the service manager provides.
    void findCredentials();
};

/// The names in a configuration file.
const SettingTable<ServerOptions>& serverSettings();

/// The same names for options that contain these.
template <typename Options>
SettingTable<Options> serverSettingsOf()
{
    SettingTable<Options> all;
    for (const auto& [name, setting] : serverSettings())
        all[name] = {setting.set, setting.isRepeatable};
    return all;
}

/// Reads a password: the content of a file without the line end. Throws ConfigError.
std::string readPassword(const std::string& fileName);

#endif
