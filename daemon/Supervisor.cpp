#include "daemon/Supervisor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

// systemd's protocol is simple and promised to stay. Its library would need six others. It is also missing on
// devices with another service manager, which may speak the protocol, too.

namespace
{

// How long to wait until the next attempt to report that the daemon is ready.
constexpr std::chrono::milliseconds retryPause{100};

std::string_view environment(const char* name)
{
    const char* value = getenv(name);
    return value == nullptr ? std::string_view() : value;
}

// Returns 0 for a text that is not a number.
uint64_t numberFromEnvironment(const char* name)
{
    const std::string_view text = environment(name);
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// The watchdog may belong to a parent process, which has passed its environment on.
bool isWatchdogOurs()
{
    return environment("WATCHDOG_PID").empty() ||
           numberFromEnvironment("WATCHDOG_PID") == static_cast<uint64_t>(getpid());
}

// Returns false if the kernel's buffer for the supervisor is full. It does not wait, so clients and signals
// are still served.
bool tell(std::string_view message)
{
    const std::string_view path = environment("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return true; // no supervisor
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path[0] == '@') // a name in the kernel, not a file
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket == -1)
        return false; // out of descriptors
    const bool full = sendto(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), size) == -1 &&
                      errno == EAGAIN;
    close(socket);
    return !full;
}

} // namespace

Supervisor::Supervisor(const char* name) : mName(name)
{
    const uint64_t microseconds = numberFromEnvironment("WATCHDOG_USEC");
    if (microseconds == 0 || !isWatchdogOurs())
        return;
    constexpr uint64_t hour = 3'600'000'000; // an interval that every clock can count
    mInterval = std::chrono::microseconds(
        std::clamp<uint64_t>(microseconds / 3, 1000, hour)); // one late message does no harm
    mNextFeeding = Clock::now();
}

void Supervisor::ready(const std::string& status)
{
    mReadiness = "READY=1\nSTATUS=" + status;
    tellReadiness();
    if (mNextReadiness)
        OV_LOG(2, "Could not report to the service manager yet that %s is ready", mName);
}

void Supervisor::stopping()
{
    tell("STOPPING=1");
}

void Supervisor::tellWhatIsDue(TimePoint now)
{
    if (mNextReadiness && now >= *mNextReadiness)
        tellReadiness();
    if (!mNextReadiness && mNextFeeding && now >= *mNextFeeding)
        feed(now);
}

void Supervisor::tellReadiness()
{
    mNextReadiness.reset();
    if (!tell(mReadiness))
        mNextReadiness = Clock::now() + retryPause;
}

void Supervisor::feed(TimePoint now)
{
    tell("WATCHDOG=1"); // if there was no room, the next message is soon
    mNextFeeding = now + mInterval;
}
