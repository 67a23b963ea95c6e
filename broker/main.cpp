#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <malloc.h>
#include <string>

#include "broker/Broker.h"
#include "broker/CommandLine.h"
#include "broker/LastWords.h"
#include "broker/Signals.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// The levels that the environment sets for single files go over the level for all.
void setLogLevel(int level)
{
    ov_log_configure(("*=" + std::to_string(level)).c_str());
    if (const char* environment = getenv("OV_LOG"))
        ov_log_configure(environment);
}

void reload(const CommandLine& commandLine, Broker& broker)
{
    try
    {
        const Options options = commandLine.readOptions();
        setLogLevel(options.logLevel);
        broker.setLimits(options.limits);
        OV_LOG(5, "Took over limits and log level");
    }
    catch (const ConfigError& error)
    {
        OV_LOG(0, "Keeping the options: %s", error.what());
    }
}

void serve(const CommandLine& commandLine, const Options& options)
{
    Signals signals;
    Broker broker(options);
    for (;;)
    {
        broker.serveUntil(signals.descriptor());
        const int signal = signals.take();
        if (signal == SIGHUP)
            reload(commandLine, broker);
        else if (signal != 0)
            break;
    }
    broker.finish();
}

void run(const CommandLine& commandLine)
{
    const Options options = commandLine.readOptions();
    if (commandLine.isCheck())
    {
        puts("statusbroker: configuration is good");
        return;
    }
    setLogLevel(options.logLevel);
    serve(commandLine, options);
}

// Freed memory goes back to the system where it is not between memory in use: large pieces are kept apart.
void keepMemoryReturnable()
{
    constexpr int largePiece = 64 * 1024;
    mallopt(M_MMAP_THRESHOLD, largePiece);
    mallopt(M_TRIM_THRESHOLD, largePiece);
}

int complain(const std::exception& exception, int exitCode)
{
    printLastWords("statusbroker: " + std::string(exception.what()) + "\n");
    return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN); // the reader of the log may go away
    ov_log_never_wait();      // or stop reading
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is a full disk
    keepMemoryReturnable();
    try
    {
        run(CommandLine(argc, argv));
    }
    catch (const CommandLine::Exit& exit)
    {
        return exit.code;
    }
    catch (const ConfigError& error)
    {
        return complain(error, CommandLine::wrongUsage);
    }
    catch (const std::exception& exception)
    {
        return complain(exception, EXIT_FAILURE);
    }
    return EXIT_SUCCESS;
}
