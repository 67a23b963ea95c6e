#include "mqttlink/ServerOptions.h"

#include <cstdlib>
#include <limits>

#include "mqttlink/ServerName.h"
#include "mqttlink/Topics.h"

using OptionText::quoted;
using SettingValue::refuse;

namespace
{

Setting<ServerOptions> text(std::string ServerOptions::*member)
{
    return {[member](ServerOptions& options, const std::string& value)
            { options.*member = SettingValue::text(value); }};
}

void setServer(ServerOptions& options, const std::string& value)
{
    if (const std::string error = ServerName::errorIn(value); !error.empty())
        refuse(error);
    options.server = value;
}

void setPrefix(ServerOptions& options, const std::string& value)
{
    if (const std::string error = Topics::errorInPrefix(value); !error.empty())
        refuse(quoted(value) + " " + error);
    options.prefix = value;
}

void setMqtt(ServerOptions& options, const std::string& value)
{
    if (value != "5" && value != "3.1.1")
        refuse(quoted(value) + " is not one of 5, 3.1.1");
    options.isVersion5 = value == "5";
}

void findCredential(std::string& file)
{
    const char* folder = getenv("CREDENTIALS_DIRECTORY");
    if (!file.empty() && file.find('/') == std::string::npos && folder != nullptr)
        file = std::string(folder) + "/" + file;
}

} // namespace

int ServerOptions::effectivePort() const
{
    constexpr int plain = 1883;
    constexpr int secure = 8883;
    return port != 0 ? port : isInsecure ? plain : secure;
}

std::string ServerOptions::mistake() const
{
    if (server.empty())
        return "no server is named";
    if (certificate.empty() != key.empty())
        return "certificate and key are needed together";
    if (key.empty() && !keyEngine.empty())
        return "a key-engine is of no use without a key";
    if (isInsecure && !certificate.empty())
        return "a certificate is of no use with insecure = true";
    if (user.empty() && !passwordFile.empty())
        return "a password-file is of no use without a user";
    return {};
}

void ServerOptions::findCredentials()
{
    for (std::string* file : {&ca, &certificate, &key, &passwordFile})
        findCredential(*file);
}

const SettingTable<ServerOptions>& serverSettings()
{
    constexpr uint64_t highestPort = std::numeric_limits<uint16_t>::max();
    constexpr uint64_t leastKeepAlive = 5;
    constexpr uint64_t mostKeepAlive = std::numeric_limits<uint16_t>::max();
    using O = ServerOptions;
    using Text = const std::string&;
    static const SettingTable<ServerOptions> all{
        {"server", {setServer}},
        {"port", {[](O& options, Text value) {
             options.port = static_cast<int>(SettingValue::number(value, 1, highestPort));
         }}},
        {"prefix", {setPrefix}},
        {"client-id", text(&O::clientId)},
        {"mqtt", {setMqtt}},
        {"keep-alive", {[](O& options, Text value) {
             options.keepAlive =
                 std::chrono::seconds(SettingValue::number(value, leastKeepAlive, mostKeepAlive));
         }}},
        {"insecure", {[](O& options, Text value) { options.isInsecure = SettingValue::truth(value); }}},
        {"ca", text(&O::ca)},
        {"certificate", text(&O::certificate)},
        {"key", text(&O::key)},
        {"key-engine", text(&O::keyEngine)},
        {"alpn", text(&O::alpn)},
        {"user", text(&O::user)},
        {"password-file", text(&O::passwordFile)},
    };
    return all;
}

std::string readPassword(const std::string& fileName)
{
    std::string password = ConfigText::readFile(fileName);
    while (!password.empty() && (password.back() == '\n' || password.back() == '\r'))
        password.pop_back();
    return password;
}
