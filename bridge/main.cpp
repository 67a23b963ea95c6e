#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <getopt.h>
#include <malloc.h>
#include <mosquitto.h>
#include <string>
#include <unistd.h>

#include "bridge/Bridge.h"
#include "common/Logging.h"
#include "daemon/ConfigText.h"
#include "daemon/LastWords.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr int wrongUsage = 2;

constexpr const char* help = "Usage: statusbridge [--config FILE] [--check-config]\n"
                             "Brings the status values and events of this device to an MQTT server.\n"
                             "\n"
                             "  --config FILE    read this configuration instead of /etc/statusbridge.conf\n"
                             "  --check-config   check the configuration, and exit\n"
                             "  --help           print this help, and exit\n"
                             "  --version        print the version, and exit\n";

struct CommandLine
{
    std::string configFile = "/etc/statusbridge.conf";
    bool isCheck = false;
};

// Levels that the environment sets for single files override the level for all.
void setLogLevel(int level)
{
    ov_log_configure(("*=" + std::to_string(level)).c_str());
    if (const char* environment = getenv("OV_LOG"))
        ov_log_configure(environment);
}

[[noreturn]] void printAndLeave(const char* text)
{
    fputs(text, stdout);
    exit(EXIT_SUCCESS);
}

CommandLine readCommandLine(int argc, char** argv)
{
    const option options[] = {{"config", required_argument, nullptr, 'c'},
                              {"check-config", no_argument, nullptr, 'k'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'v'},
                              {nullptr, 0, nullptr, 0}};
    CommandLine line;
    for (int found = 0; (found = getopt_long(argc, argv, "", options, nullptr)) != -1;)
    {
        if (found == 'c')
            line.configFile = optarg;
        else if (found == 'k')
            line.isCheck = true;
        else if (found == 'h')
            printAndLeave(help);
        else if (found == 'v')
            printAndLeave("statusbridge " STATUSBRIDGE_VERSION "\n");
        else
            exit(wrongUsage);
    }
    if (optind < argc)
        throw ConfigError("unknown argument \"" + std::string(argv[optind]) + "\"");
    return line;
}

std::optional<BridgeOptions> reload(const std::string& file)
{
    try
    {
        BridgeOptions options = BridgeOptions::readFile(file);
        setLogLevel(options.logLevel);
        return options;
    }
    catch (const std::exception& error)
    {
        OV_LOG(0, "Keeping the old options: %s", error.what());
        return std::nullopt;
    }
}

void run(const CommandLine& line)
{
    BridgeOptions options = BridgeOptions::readFile(line.configFile);
    if (line.isCheck)
    {
        puts("statusbridge: the configuration is valid");
        return;
    }
    setLogLevel(options.logLevel);
    Signals signals;
    Bridge(std::move(options), [&line] { return reload(line.configFile); }).run(signals);
}

// One heap for all threads, whose free pieces return to the system.
void keepMemorySmall()
{
    constexpr int largePiece = 16 * 1024;
    constexpr int muchAtTheEnd = 64 * 1024;
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, largePiece);
    mallopt(M_TRIM_THRESHOLD, muchAtTheEnd);
}

int complain(const std::exception& exception, int exitCode)
{
    printLastWords("statusbridge: " + std::string(exception.what()) + "\n");
    return exitCode;
}

int serve(int argc, char** argv)
{
    try
    {
        run(readCommandLine(argc, argv));
    }
    catch (const ConfigError& error)
    {
        return complain(error, wrongUsage);
    }
    catch (const std::exception& exception)
    {
        return complain(exception, EXIT_FAILURE);
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN); // the server, or the reader of the log, may disappear
    ov_log_never_wait();
    signal(SIGXFSZ, SIG_IGN); // a file at its size limit counts as a full disk
    keepMemorySmall();
    mosquitto_lib_init();
    const int exitCode = serve(argc, argv);
    fflush(stdout);
    // A thread may still search for the server's address. It must not see the end of what it uses.
    _exit(exitCode);
}
