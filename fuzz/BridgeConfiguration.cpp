// Fuzzes the bridge's configuration file.

#include "bridge/BridgeOptions.h"
#include "daemon/ConfigText.h"
#include "fuzz/Fuzz.h"
#include "mqttlink/ServerName.h"
#include "mqttlink/Topics.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    try
    {
        const BridgeOptions options = BridgeOptions::parse(Fuzz::textOf(data, size), "file");
        Fuzz::require(options.effectivePort() > 0 && options.eventRate > 0, "numbers are sensible");
        Fuzz::require(!ServerName::pick(options.server, options.device).empty(), "there is a server");
        const std::string level = Topics::encode(options.device);
        Fuzz::require(Topics::decode(level) == options.device, "a name survives its topic");
    }
    catch (const ConfigError& error)
    {
        const std::string what = error.what();
        Fuzz::require(what.rfind("file:", 0) == 0, "an error names the file");
    }
    return 0;
}
