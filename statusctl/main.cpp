#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "statusctl/CommandLine.h"
#include "statusctl/text/Report.h"

namespace
{

// quick_exit() runs no destructors. The library's threads may still wait for a broker that does not answer.
[[noreturn]] void leave(ExitCode code)
{
    std::fflush(stdout);
    std::quick_exit(static_cast<int>(code));
}

// A standard stream may be closed at the start. The first socket opened would then take its number, and
// receive what is printed. /dev/null takes the number instead, opened in the wrong direction: the stream
// still fails.
void occupyStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        if (fcntl(descriptor, F_GETFD) == -1)
            open("/dev/null", (descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
}

ExitCode run(CommandLine& line, int argc, char** argv)
{
    try
    {
        IVerb* verb = line.parse({argv + 1, argv + argc});
        return verb == nullptr ? ExitCode::Done : verb->run(line.settings());
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
    occupyStandardStreams();
    std::signal(SIGCHLD, SIG_DFL); // if the parent ignored it, the kernel would drop children's exit codes
    std::signal(SIGPIPE, SIG_DFL); // end silently when the reader has gone, even if the parent ignored it
    CommandLine line;
    leave(run(line, argc, argv));
}
