// Fuzzes the configuration file and the rules for log levels.

#include "broker/ConfigFile.h"
#include "common/Logging.h"
#include "fuzz/Fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    try
    {
        const Options options = parseConfig(text, "file");
        Fuzz::require(options.limits.keys >= 1 && options.limits.messageBytes >= 1024, "limits are sensible");
        Fuzz::require(options.logLevel >= 0 && options.logLevel <= 7, "the level is one");
    }
    catch (const ConfigError& error)
    {
        const std::string what = error.what();
        Fuzz::require(what.rfind("file:", 0) == 0, "an error names the file");
    }
    static_cast<void>(ov_log_configure(text.c_str()));
    static_cast<void>(ov_log_configure("*=5:ffffffff"));
    return 0;
}
