#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <malloc.h>
#include <memory>
#include <stdexcept>
#include <string>

#include "broker/Broker.h"
#include "broker/CommandLine.h"
#include "broker/PolicyOption.h"
#include "common/Logging.h"
#include "daemon/LastWords.h"
#include "daemon/Signals.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// Levels that the environment sets for single files override the level for all.
void setLogLevel(int level)
{
    ov_log_configure(("*=" + std::to_string(level)).c_str());
    if (const char* environment = getenv("OV_LOG"))
        ov_log_configure(environment);
}

void logPolicy(const Options& options, const Policy& policy)
{
    for (const std::string& warning : policy.warnings())
        OV_LOG(2, "%s", warning.c_str());
    if (policy.rules() == 0 && !policy.hasTies() && !policy.hasQuotas())
        OV_LOG(2, "The policy of %s has no rules", options.policy.c_str());
    OV_LOG(5, "The policy of %s is %s, %zu rules", options.policy.c_str(),
           policy.isAudit() ? "only logged" : "in force", policy.rules());
}

// Applies all of the new options, or none.
void reload(const CommandLine& commandLine, Broker& broker)
{
    try
    {
        const Options options = commandLine.readOptions();
        std::unique_ptr<const Policy> policy = readPolicy(options.policy);
        const Policy& used = *policy;
        broker.setPolicy(std::move(policy));
        setLogLevel(options.logLevel);
        broker.setLimits(options.limits);
        OV_LOG(5, "Applied new limits, log level and policy");
        if (options.policy.empty())
            OV_LOG(5, "There is no policy: clients may do everything");
        else
            logPolicy(options, used);
    }
    catch (const std::exception& error)
    {
        OV_LOG(0, "Keeping the old options: %s", error.what());
    }
}

void serve(const CommandLine& commandLine, const Options& options, std::unique_ptr<const Policy> policy)
{
    Signals signals;
    if (!options.policy.empty())
        logPolicy(options, *policy);
    Broker broker(options, std::move(policy));
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
    std::unique_ptr<const Policy> policy = readPolicy(options.policy);
    if (commandLine.isCheck())
    {
        puts("statusbroker: the configuration is valid");
        if (!options.policy.empty())
            fputs(policy->describe().c_str(), stdout);
        return;
    }
    setLogLevel(options.logLevel);
    serve(commandLine, options, std::move(policy));
}

// Large pieces of memory are kept apart, so that they return to the system when they are freed.
void keepMemoryReturnable()
{
    constexpr int largePiece = 16 * 1024;
    constexpr int muchAtTheEnd = 64 * 1024;
    mallopt(M_MMAP_THRESHOLD, largePiece);
    mallopt(M_TRIM_THRESHOLD, muchAtTheEnd);
}

int complain(const std::exception& exception, int exitCode)
{
    printLastWords("statusbroker: " + std::string(exception.what()) + "\n");
    return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN); // the reader of the log may disappear
    ov_log_never_wait();      // or stop reading
    signal(SIGXFSZ, SIG_IGN); // a file at its size limit counts as a full disk
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
