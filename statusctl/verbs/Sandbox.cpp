// sandbox: runs a command with a broker of its own.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "statusctl/base/ChildCommand.h"
#include "statusctl/base/Descendants.h"
#include "statusctl/base/PrivateNetwork.h"
#include "statusctl/device/Ports.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Report.h"
#include "statusctl/verbs/Verb.h"

namespace
{

/// A broker in this network. It ends with this process.
class OwnBroker
{
public:
    /// Returns when the broker serves.
    OwnBroker(const std::string& program, const Settings& settings) : mPid(start(program))
    {
        const auto end = std::chrono::steady_clock::now() + settings.requestTimeout();
        constexpr std::chrono::milliseconds pause{5};
        while (Ports::firstClosed())
        {
            if (waitpid(mPid, nullptr, WNOHANG) == mPid)
                throw Failure(ExitCode::Failed, "cannot start the broker \"" + program + "\"");
            if (std::chrono::steady_clock::now() >= end)
                throw Failure(ExitCode::TimedOut, "the broker was not ready within " +
                                                      Duration::write(settings.requestTimeout()));
            std::this_thread::sleep_for(pause);
        }
    }

    pid_t pid() const { return mPid; }

private:
    static pid_t start(const std::string& program)
    {
        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid < 0)
            throw Failure(ExitCode::Failed, std::string("cannot create a process: ") + std::strerror(errno));
        if (pid == 0)
            become(program, parent);
        return pid;
    }

    [[noreturn]] static void become(const std::string& program, pid_t parent)
    {
        constexpr int noProgram = 127;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (getppid() == parent && nothing >= 0 && dup2(nothing, STDIN_FILENO) == STDIN_FILENO)
        {
            setsid(); // keys of the terminal must not signal the broker
            leaveDevice();
            execlp(program.c_str(), program.c_str(), "--log-level=2", nullptr);
        }
        _exit(noProgram);
    }

    // The environment may be a service's: with the state file of the device's broker, and with the socket of
    // the service manager. Neither is meant for this broker.
    static void leaveDevice()
    {
        for (const char* name : {"STATUSBROKER_STATE", "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }

    const pid_t mPid;
};

class Sandbox : public IVerb
{
public:
    explicit Sandbox(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(
            app, "sandbox", "Run a command with a broker of its own",
            "statusctl sandbox -- ctest\n"
            "statusctl sandbox -- sh -c 'statusctl set door open; ./door-test'",
            "Command and broker run in a network namespace where the broker's ports are free. So several\n"
            "sandboxes run side by side, and beside the device's own broker. The command reaches no other\n"
            "machine, and no IP service of this machine. The broker begins without values, keeps nothing,\n"
            "has no policy, and logs levels 0 to 2. Needs no rights if the kernel lets users create\n"
            "namespaces. Passes signals on to the command, exits as the command does, and ends all "
            "processes\n"
            "that the command leaves.");
        command
            .add_option("--broker", mBroker,
                        "The broker's program; default: beside statusctl, or in the PATH")
            ->type_name("PROGRAM");
    }

    ExitCode run(const Settings& settings) override
    {
        if (settings.command.empty())
            throw Failure(ExitCode::WrongUsage, "missing command (usage: sandbox -- COMMAND)");
        Descendants descendants;
        enterPrivateNetwork();
        const OwnBroker broker(mBroker.empty() ? usualBroker() : mBroker, settings);
        // The command continues: its purpose may be to see how clients do without a broker.
        const auto notice = [&](pid_t child, int status)
        {
            if (child == broker.pid())
                report(settings, Failure(ExitCode::Failed, "the broker has ended " + reason(status)));
        };
        // Until all processes are ended, it keeps signals from ending this one.
        const ChildCommand command(settings.command, ChildCommand::AtOurDeath::Dies);
        const int code = command.wait(notice);
        if (!descendants.end())
            report(settings, Failure(ExitCode::Failed, "cannot end all processes that the command has left: "
                                                       "they start new ones too fast"));
        return static_cast<ExitCode>(code);
    }

private:
    static std::string reason(int status)
    {
        return WIFSIGNALED(status) ? "by signal " + std::to_string(WTERMSIG(status))
                                   : "with exit code " + std::to_string(WEXITSTATUS(status));
    }

    // Installed together, the two have the same version.
    static std::string usualBroker()
    {
        std::error_code error;
        const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
        const std::string beside = (self.parent_path() / "statusbroker").string();
        return !error && access(beside.c_str(), X_OK) == 0 ? beside : "statusbroker";
    }

    std::string mBroker;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addSandbox(CLI::App& app)
{
    return std::make_unique<Sandbox>(app);
}
