#include "statusctl/base/Descendants.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "statusctl/base/SignalsBlocked.h"

namespace
{

namespace fs = std::filesystem;

// Reads "12 (name) S 11 ...". The name may contain anything, also ")".
pid_t parentOf(const fs::path& process)
{
    std::ifstream file(process / "stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos)
        return 0;
    std::istringstream words(text.substr(name + 1));
    char state = 0;
    pid_t parent = 0;
    words >> state >> parent;
    return parent;
}

std::set<pid_t> children()
{
    std::set<pid_t> found;
    std::error_code error;
    for (fs::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error))
    {
        const std::string name = process->path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos &&
            parentOf(process->path()) == getpid())
            found.insert(static_cast<pid_t>(std::atol(name.c_str())));
    }
    return found;
}

// Reaps a child that has ended. Returns false if there is none.
bool reapOne()
{
    return waitpid(-1, nullptr, WNOHANG) > 0;
}

constexpr char ownNetwork[] = "/proc/self/ns/net";

} // namespace

Descendants::Descendants() : mInherited(children()), mOuterNetwork(fs::read_symlink(ownNetwork).string())
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Descendants::~Descendants()
{
    if (!mIsTried)
        end();
}

// Ending a child makes its children ours, so this repeats until no child is left. It waits for no single
// child: the kernel may hold one longer than the patience, as in a broken file system. First it reaps: a look
// into /proc takes longer for each zombie, and meanwhile new ones come.
bool Descendants::end(std::chrono::milliseconds patience)
{
    mIsTried = true;
    const SignalsBlocked blocked; // a signal would end this process before all children are ended
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (reapOne() || killChildren())
    {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    }
    return true;
}

// Returns false if there was none to kill. Killing fails for a child that became another user, as under sudo.
bool Descendants::killChildren() const
{
    bool isAnyKilled = false;
    for (const pid_t child : children())
        isAnyKilled = (isOfSandbox(child) && kill(child, SIGKILL) == 0) || isAnyKilled;
    return isAnyKilled;
}

// Networks within the sandbox belong to it. Without rights, this process may inspect its own user namespace
// only: it gets EACCES for processes from outside.
bool Descendants::isOfSandbox(pid_t child) const
{
    if (mInherited.count(child) != 0)
        return false;
    std::error_code error;
    const fs::path network = fs::read_symlink("/proc/" + std::to_string(child) + "/ns/net", error);
    const bool isEnding = error == std::errc::no_such_file_or_directory; // its children are not ours yet
    return isEnding || (!error && network != mOuterNetwork);
}
