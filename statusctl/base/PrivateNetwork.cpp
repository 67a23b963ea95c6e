#include "statusctl/base/PrivateNetwork.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "statusctl/base/Failure.h"

namespace
{

[[noreturn]] void fail(const char* what)
{
    throw Failure(ExitCode::Failed,
                  std::string("cannot create a private network: ") + what + ": " + std::strerror(errno) +
                      "; run it as root, or let users create namespaces (see user.max_user_namespaces, "
                      "user.max_net_namespaces, and the rules of the container or of AppArmor; in a chroot "
                      "only root may)");
}

bool write(const char* file, const std::string& text)
{
    const int descriptor = open(file, O_WRONLY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    const bool isWritten = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    close(descriptor);
    errno = error;
    return isWritten;
}

// Maps an id to itself: "1000 1000 1".
std::string same(unsigned id)
{
    return std::to_string(id) + " " + std::to_string(id) + " 1";
}

void enterNamespaces()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNET) == 0)
        return;
    if (errno != EPERM)
        fail("unshare");
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        fail("unshare");
    // The kernel accepts gid_map only after setgroups is denied.
    if (!write("/proc/self/setgroups", "deny") || !write("/proc/self/uid_map", same(user)) ||
        !write("/proc/self/gid_map", same(group)))
        fail("mapping of users");
}

void startLoopback()
{
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    const bool isRead = any >= 0 && ioctl(any, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (!isRead || ioctl(any, SIOCSIFFLAGS, &request) != 0)
        fail("loopback interface");
    close(any);
}

} // namespace

void enterPrivateNetwork()
{
    enterNamespaces();
    startLoopback();
}
