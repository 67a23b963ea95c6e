#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

#include "broker/Broker.h"

namespace
{

// SIGTERM and SIGINT as something to poll. Blocked before any thread is started, so that none gets them.
class StopSignals
{
public:
    StopSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        mDescriptor = signalfd(-1, &signals, SFD_CLOEXEC);
        if (mDescriptor == -1)
            throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    ~StopSignals() { close(mDescriptor); }

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    int descriptor() const { return mDescriptor; }

private:
    int mDescriptor;
};

void run(const Broker::Options& options)
{
    const StopSignals stop;
    Broker broker(options);
    broker.run(stop.descriptor());
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app(
        "The broker of the status manager: holds the status values, timers and counters of this device "
        "and passes changes on to all clients. Serves 127.0.0.1, ports 5555 to 5557.",
        "statusbroker");
    Broker::Options options;
    app.add_flag("--allow-set-time", options.allowSetTime,
                 "Let clients set the system clock (takes CAP_SYS_TIME)");
    app.set_version_flag("--version", "statusbroker " STATUSBROKER_VERSION);
    CLI11_PARSE(app, argc, argv);

    signal(SIGPIPE, SIG_IGN); // whoever reads our log may go away
    try
    {
        run(options);
    }
    catch (const std::exception& exception)
    {
        fprintf(stderr, "statusbroker: %s\n", exception.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
