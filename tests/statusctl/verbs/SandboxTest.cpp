// sandbox, next to a real broker.

#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"

namespace
{

// The tests themselves need a namespace for that. They are skipped where the kernel keeps namespaces to root;
// as root they always run, as on the build server.
bool canSandbox()
{
    TestProcess trial({"/usr/bin/env", "unshare", geteuid() == 0 ? "--net" : "--user", "true"});
    return trial.waitForExit() == 0;
}

// Whether a process can take over descendants whose parent has ended. May be false: the emulator has no
// subreapers. Every kernel since 3.4 has, so the tests of that always run natively.
bool canAdopt()
{
    int isReaper = 0;
    return prctl(PR_GET_CHILD_SUBREAPER, &isReaper) == 0;
}

constexpr char cannotAdopt[] = "the emulator has no subreapers";

class SandboxTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!canSandbox())
            GTEST_SKIP() << "this kernel does not let this user create namespaces";
    }

    static Words sandboxed(const Words& command)
    {
        Words words{"sandbox", "--broker", STATUSBROKER, "--"};
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    // A shell in the sandbox, which finds the tool as $0.
    static Words shell(const std::string& line) { return sandboxed({"sh", "-c", line, STATUSCTL}); }

    // The tool's command, run by another program: a shell, or env.
    static Words runBy(Words program, const Words& words)
    {
        const Words tool = commandOf(words);
        program.insert(program.end(), tool.begin(), tool.end());
        return program;
    }

    static bool isThere(pid_t process) { return kill(process, 0) == 0; }

    BrokerProcess mBroker;
};

} // namespace

TEST_F(SandboxTest, aCommandHasABrokerOfItsOwn)
{
    statusctl({"set", "door", "open"});
    EXPECT_EQ(statusctl(shell("$0 get door --default none; $0 set door shut lamp on; $0 dump")),
              success("none\ndoor=shut\nlamp=on\n"));
    EXPECT_EQ(statusctl({"dump"}), success("door=open\n"));
}

TEST_F(SandboxTest, theBrokerDoesNotUseTheDevicesStateFile)
{
    const TemporaryFolder folder;
    const std::string file = folder / "state";
    TestProcess tool(
        runBy({"/usr/bin/env", "STATUSBROKER_STATE=" + file}, shell("$0 set door open; $0 get door")));
    EXPECT_EQ(tool.readRest(), "open\n");
    EXPECT_EQ(tool.waitForExit(), 0) << tool.errors();
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SandboxTest, theBrokerDoesNotReportToTheServiceManager)
{
    const TemporaryFolder folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (folder / "notify").c_str(), sizeof address.sun_path - 1);
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    TestProcess tool(
        runBy({"/usr/bin/env", "NOTIFY_SOCKET=" + (folder / "notify")}, shell("$0 set door open")));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.errors();
    char message = 0;
    EXPECT_EQ(recv(manager, &message, sizeof message, 0), -1);
    close(manager);
}

TEST_F(SandboxTest, twoRunSideBySide)
{
    const std::string line = "$0 set door $1; echo ready; read -r go; $0 get door";
    TestProcess one(commandOf(sandboxed({"sh", "-c", line, STATUSCTL, "1"})));
    TestProcess other(commandOf(sandboxed({"sh", "-c", line, STATUSCTL, "2"})));
    EXPECT_EQ(one.readLine(), "ready");
    EXPECT_EQ(other.readLine(), "ready");
    one.writeLine("go");
    other.writeLine("go");
    EXPECT_EQ(one.readLine(), "1");
    EXPECT_EQ(other.readLine(), "2");
    EXPECT_EQ(one.waitForExit(), 0);
    EXPECT_EQ(other.waitForExit(), 0);
}

TEST_F(SandboxTest, theExitCodeIsTheCommands)
{
    EXPECT_EQ(statusctl(sandboxed({"true"})), success(""));
    EXPECT_EQ(statusctl(shell("exit 42")).code, 42);
    EXPECT_EQ(statusctl(shell("kill -KILL $$")).code, 128 + SIGKILL);
    EXPECT_EQ(statusctl(sandboxed({"no-such-program"})),
              failure(127, "statusctl: sandbox: cannot run \"no-such-program\": No such file or directory"));
}

TEST_F(SandboxTest, theExitCodeIsTheCommandsAlsoIfTheCallerIgnoresItsChildren)
{
    TestProcess tool(runBy({"/usr/bin/env", "--ignore-signal=CHLD"}, shell("exit 7")));
    EXPECT_EQ(tool.waitForExit(), 7) << tool.errors();
}

TEST_F(SandboxTest, signalsReachTheCommand)
{
    if (areSignalsDelayed)
        GTEST_SKIP() << "this build delays signals";
    for (const int number : {SIGINT, SIGQUIT, SIGHUP})
        std::signal(number, SIG_DFL); // the tests' caller may ignore them
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGALRM, SIGVTALRM, SIGPROF, SIGPIPE,
                             SIGXCPU, SIGXFSZ, SIGIO, SIGPWR, SIGRTMIN, SIGRTMAX})
    {
        if (isEmulated && (number == SIGRTMIN || number == SIGRTMAX))
            continue; // the emulator keeps them for itself
        TestProcess tool(commandOf(
            shell("trap 'exit 3' " + std::to_string(number) + "; echo begun; while :; do sleep 0.01; done")));
        EXPECT_EQ(tool.readLine(), "begun");
        tool.signal(number);
        EXPECT_EQ(tool.waitForExit(), 3) << number;
    }
}

// A shell without job control ignores them for commands before "&". The emulator catches all signals, so the
// programs that it starts ignore none.
TEST_F(SandboxTest, signalsThatAreIgnoredAtTheStartStayIgnored)
{
    const std::string command = isEmulated ? "" : " kill -$i $$;";
    const std::string line = "for i in INT QUIT HUP; do kill -$i $PPID;" + command + " done; echo alive";
    TestProcess tool(runBy({"/bin/sh", "-c", "trap '' INT QUIT HUP; exec \"$@\"", "sh"}, shell(line)));
    EXPECT_EQ(tool.readLine(), "alive");
    EXPECT_EQ(tool.waitForExit(), 0);
}

// Neither the broker nor any descendant of the command.
TEST_F(SandboxTest, nothingIsLeftBehind)
{
    if (!canAdopt())
        GTEST_SKIP() << cannotAdopt;
    const TemporaryFolder folder;
    const std::string pipe = folder / "pipe";
    const Outcome outcome = statusctl(
        shell("mkfifo " + pipe +
              "; setsid sh -c 'trap \"\" TERM HUP; (sleep 1000 & echo $!); echo $$; sleep 1001; :' >" + pipe +
              " & exec <" + pipe + "; read -r one; echo $one; read -r other; echo $other"));
    EXPECT_EQ(outcome.code, 0) << outcome;
    Words processes;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);)
    {
        processes.push_back(line);
        EXPECT_FALSE(isThere(std::stoi(line))) << line;
    }
    EXPECT_EQ(processes.size(), 2U) << outcome;
}

// Tests often wait in this way until a daemon has ended.
TEST_F(SandboxTest, aProcessThatEndsWhileTheCommandRunsIsGone)
{
    const Outcome outcome =
        statusctl(shell("orphan=$(sh -c 'sleep 0.1 >/dev/null & echo $!'); n=0;"
                        "while kill -0 $orphan && [ $n -lt 500 ]; do sleep 0.01; n=$((n + 1)); done 2>&1;"
                        "[ $n -lt 500 ]"));
    EXPECT_EQ(outcome.code, 0) << outcome;
}

// Returns when the broker is gone.
constexpr char endBroker[] =
    "read -r broker others </proc/$PPID/task/$PPID/children; kill -KILL $broker; n=0;"
    "while kill -0 $broker && [ $n -lt 500 ]; do sleep 0.01; n=$((n + 1)); done 2>/dev/null; exit 3";

TEST_F(SandboxTest, theEndOfTheBrokerIsReported)
{
    EXPECT_EQ(statusctl(shell(endBroker)),
              failure(3, "statusctl: sandbox: the broker has ended by signal 9"));
}

// The kernel sends the tool SIGPIPE for that.
TEST_F(SandboxTest, aReportThatNobodyReadsEndsNeitherToolNorCommand)
{
    TestProcess tool(commandOf(shell(std::string("read -r go;") + endBroker)));
    tool.closeErrors();
    tool.writeLine("go");
    EXPECT_EQ(tool.waitForExit(), 3);
}

// The signal comes again and again, until the tool ends its sender.
TEST_F(SandboxTest, aSignalAfterTheCommandsEndDoesNotKeepItFromEndingTheRest)
{
    if (!canAdopt())
        GTEST_SKIP() << cannotAdopt;
    if (areSignalsDelayed)
        GTEST_SKIP() << "this build delays signals";
    const Outcome outcome = statusctl(shell(
        "trap 'exit 3' TERM; sh -c 'trap \"\" TERM; echo $$; while kill -TERM $1; do :; done' sh $PPID &"
        "while :; do sleep 0.01; done"));
    EXPECT_EQ(outcome.code, 3) << outcome;
    EXPECT_FALSE(isThere(std::stoi("0" + outcome.output))) << outcome;
}

// The shell's "exec" turned the shell's process into the tool.
TEST_F(SandboxTest, childrenThatTheToolHadBeforeAreLeftAlone)
{
    const Words command{"/bin/sh", "-c", "sleep 1000 >/dev/null 2>&1 & echo $!; exec \"$@\"", "sh"};
    TestProcess process(runBy(command, sandboxed({"true"})));
    const pid_t child = std::stoi(process.readLine().value_or("0"));
    EXPECT_EQ(process.waitForExit(), 0) << process.errors();
    ASSERT_GT(child, 0);
    EXPECT_EQ(kill(child, SIGKILL), 0);
}

// The shell's child ends while the tool runs, so the kernel makes the sleep the tool's child.
TEST_F(SandboxTest, aDaemonOfAnEarlierChildIsLeftAlone)
{
    if (!canAdopt())
        GTEST_SKIP() << cannotAdopt;
    const TemporaryFolder folder;
    const std::string start = "(read -r go <" + (folder / "go") + "; sleep 1000 >/dev/null 2>&1 & echo $! >" +
                              (folder / "pid") + ") & exec \"$@\"";
    const std::string wait = "echo go >" + (folder / "go") + "; read -r daemon <" + (folder / "pid") +
                             "; while [ $(cut -d' ' -f4 /proc/$daemon/stat) != $PPID ]; do sleep 0.01; done;"
                             "echo $daemon";
    ASSERT_EQ(mkfifo((folder / "go").c_str(), S_IRWXU), 0);
    ASSERT_EQ(mkfifo((folder / "pid").c_str(), S_IRWXU), 0);
    TestProcess tool(runBy({"/bin/sh", "-c", start, "sh"}, shell(wait)));
    const pid_t daemon = std::stoi(tool.readLine().value_or("0"));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.errors();
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(kill(daemon, SIGKILL), 0);
}

// As the command of a sandbox within this sandbox leaves it, if that sandbox is killed.
TEST_F(SandboxTest, aProcessInANetworkWithinTheSandboxIsEnded)
{
    if (!canAdopt())
        GTEST_SKIP() << cannotAdopt;
    const Outcome outcome = statusctl(
        shell("sh -c '" + std::string(geteuid() == 0 ? "unshare --net" : "unshare --user --net") +
              " sh -c \"echo \\$\\$; exec sleep 1000 >/dev/null 2>&1\" &' | { read -r left; echo $left; }"));
    EXPECT_EQ(outcome.code, 0) << outcome;
    EXPECT_FALSE(isThere(std::stoi("0" + outcome.output))) << outcome;
}

TEST_F(SandboxTest, theBrokerDiesWithTheTool)
{
    TestProcess tool(commandOf(shell("cat /proc/$PPID/task/$PPID/children; echo; read -r line")));
    std::istringstream children(tool.readLine().value_or(""));
    pid_t broker = 0;
    ASSERT_TRUE(children >> broker); // its first child
    ASSERT_TRUE(isThere(broker));
    tool.signal(SIGKILL);
    tool.waitForExit();
    EXPECT_TRUE(eventually([&] { return !isThere(broker); }));
}

TEST_F(SandboxTest, theCommandDiesWithTheTool)
{
    TestProcess tool(commandOf(shell("echo $$; read -r line")));
    const pid_t command = std::stoi(tool.readLine().value_or("0"));
    ASSERT_GT(command, 0);
    tool.signal(SIGKILL);
    tool.waitForExit();
    EXPECT_TRUE(eventually([&] { return !isThere(command); }));
}

TEST_F(SandboxTest, aBrokerThatCannotBeStartedIsAFailure)
{
    EXPECT_EQ(statusctl({"sandbox", "--broker", "/bin/false", "--", "echo", "run"}),
              failure(1, "statusctl: sandbox: cannot start the broker \"/bin/false\""));
}

TEST_F(SandboxTest, aBrokerThatIsNotReadyInTimeIsAFailureAndIsEnded)
{
    const TemporaryFolder folder;
    const std::string broker = folder / "broker";
    writeFile(broker, "#!/bin/sh\necho $$ >" + (folder / "pid") + "\nexec sleep 1000\n");
    ASSERT_EQ(chmod(broker.c_str(), S_IRWXU), 0);
    EXPECT_EQ(statusctl({"-t", "1s", "sandbox", "--broker", broker, "--", "echo", "run"}),
              failure(124, "statusctl: sandbox: the broker was not ready within 1 s"));
    const pid_t process = std::stoi("0" + readFile(folder / "pid"));
    ASSERT_GT(process, 0);
    EXPECT_FALSE(isThere(process));
}

TEST_F(SandboxTest, aCommandIsNeeded)
{
    EXPECT_EQ(statusctl({"sandbox"}),
              failure(2, "statusctl: sandbox: missing command (usage: sandbox -- COMMAND)"));
}

// May be skipped: only root can become another user. ThreadSanitizer runs a thread of its own, and a process
// with several threads may not enter a user namespace.
TEST_F(SandboxTest, aUserWithoutRightsStaysTheSame)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "needs a process of one thread";
#endif
    const Words asNobody{"/usr/bin/env", "setpriv", "--reuid=12345", "--regid=12345", "--clear-groups"};
    Words trial = asNobody;
    trial.insert(trial.end(), {"unshare", "--user", "--net", "test", "-x", STATUSCTL});
    if (geteuid() != 0 || TestProcess(trial).waitForExit() != 0)
        GTEST_SKIP() << "needs root, and a kernel that lets users create namespaces";
    TestProcess process(runBy(asNobody, shell("id -u; $0 set door open; $0 get door; exit 5")));
    EXPECT_EQ(process.readRest(), "12345\nopen\n") << process.errors();
    EXPECT_EQ(process.waitForExit(), 5) << process.errors();
}

// May be skipped: in containers, this limit of the kernel may be read-only.
TEST_F(SandboxTest, aKernelThatDoesNotLetItIsNamedWithWhatToDo)
{
    const std::string forbid = "echo 0 >/proc/sys/user/max_net_namespaces || exit 99; exec \"$@\"";
    const Words command{"/usr/bin/env", "unshare", "--user", "--map-root-user", "sh", "-c", forbid, "sh"};
    TestProcess process(runBy(command, sandboxed({"echo", "run"})));
    EXPECT_EQ(process.readRest(), "");
    const std::optional<int> code = process.waitForExit();
    if (code == 99)
        GTEST_SKIP() << "this kernel's limits cannot be set";
    EXPECT_EQ(code, 1);
    EXPECT_NE(
        process.errors().find("statusctl: sandbox: cannot create a private network: unshare: No space left "
                              "on device; run it as root, or let users create namespaces"),
        std::string::npos)
        << process.errors();
}
