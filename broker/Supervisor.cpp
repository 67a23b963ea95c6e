#include "broker/Supervisor.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// systemd's protocol is plain and promised to stay. Its library would bring six others along, and is not
// there on devices with another service manager, which may speak the protocol, too.

namespace
{

std::string_view environment(const char* name)
{
    const char* value = getenv(name);
    return value == nullptr ? std::string_view() : value;
}

// 0 for what is no number.
uint64_t numberFromEnvironment(const char* name)
{
    const std::string_view text = environment(name);
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// The watchdog may be that of a parent, which has handed its environment on.
bool isWatchdogOurs()
{
    return environment("WATCHDOG_PID").empty() ||
           numberFromEnvironment("WATCHDOG_PID") == static_cast<uint64_t>(getpid());
}

void tell(std::string_view message, int flags = 0)
{
    const std::string_view path = environment("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return;
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path[0] == '@') // no file, but a name in the kernel
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket == -1)
        return; // out of descriptors; the watchdog is fed again soon
    sendto(socket, message.data(), message.size(), flags | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), size);
    close(socket);
}

} // namespace

Supervisor::Supervisor()
{
    const uint64_t microseconds = numberFromEnvironment("WATCHDOG_USEC");
    if (microseconds == 0 || !isWatchdogOurs())
        return;
    constexpr uint64_t hour = 3'600'000'000; // an interval that every clock can count
    mInterval = std::chrono::microseconds(
        std::clamp<uint64_t>(microseconds / 3, 1000, hour)); // a late one does no harm
    mNextFeeding = Clock::now();
}

void Supervisor::ready(const std::string& status)
{
    tell("READY=1\nSTATUS=" + status);
}

// From here on, a supervisor that reads nothing is not waited for: the clients are.
void Supervisor::stopping()
{
    tell("STOPPING=1", MSG_DONTWAIT);
}

void Supervisor::feed(TimePoint now)
{
    if (!mNextFeeding || now < *mNextFeeding)
        return;
    tell("WATCHDOG=1", MSG_DONTWAIT);
    mNextFeeding = now + mInterval;
}
