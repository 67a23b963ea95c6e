#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "statusctl/CommandLine.h"
#include "statusctl/text/Report.h"

namespace
{

// The library's threads may be waiting for a broker that does not answer: nothing of theirs is taken down.
[[noreturn]] void leave(ExitCode code)
{
    std::fflush(stdout);
    std::quick_exit(static_cast<int>(code));
}

// One that is closed would become the first socket that is opened, and be written to. It stays as unusable as
// it was.
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
    std::signal(SIGPIPE, SIG_DFL); // a reader that has gone ends us silently, whatever started us
    CommandLine line;
    leave(run(line, argc, argv));
}
