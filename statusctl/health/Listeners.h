#ifndef STATUSCTL_HEALTH_LISTENERS_H
#define STATUSCTL_HEALTH_LISTENERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// The processes that listen on a TCP port, from the kernel's tables. It does not connect to anything.
namespace Listeners
{

struct Listener
{
    std::optional<pid_t> process; ///< nothing for a process of another user, whose details are hidden
    std::string name;             ///< such as "statusbroker"; empty without a process
    bool isStopped = false;       ///< by a signal, until SIGCONT
};

/// The listeners that a connection to 127.0.0.1 can reach.
std::vector<Listener> on(uint16_t port);

/// Whether any process listens. Cheaper than on().
bool areOn(uint16_t port);

/// "statusbroker (process 123)", or a text that says that it is hidden.
std::string nameOf(const Listener& listener);

} // namespace Listeners

#endif
