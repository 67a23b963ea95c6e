#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mosquitto.h>

#include "statusctl/text/Report.h"
#include "statusfleet/CommandLine.h"

namespace
{

// quick_exit() runs no destructors: a thread may still search for the server's address.
[[noreturn]] void leave(ExitCode code)
{
    std::fflush(stdout);
    std::quick_exit(static_cast<int>(code));
}

ExitCode run(CommandLine& line, int argc, char** argv)
{
    try
    {
        return line.run({argv + 1, argv + argc});
    }
    catch (const Failure& failure)
    {
        report(line.settings(), failure);
        return failure.code();
    }
    catch (const std::exception& error)
    {
        report(line.settings(), Failure(ExitCode::Failed, error.what()));
        return ExitCode::Failed;
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE,
                SIG_IGN); // the server may disappear; the output notices by itself that its reader has
    mosquitto_lib_init();
    CommandLine line;
    leave(run(line, argc, argv));
}
