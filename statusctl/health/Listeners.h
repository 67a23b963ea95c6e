#ifndef STATUSCTL_HEALTH_LISTENERS_H
#define STATUSCTL_HEALTH_LISTENERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// The processes that listen on a TCP port, as the kernel lists them: this does not connect to anything.
namespace Listeners
{

struct Listener
{
    std::optional<pid_t> process; ///< nothing where it belongs to another user, whose processes are hidden
    std::string name;             ///< "statusbroker"; empty without a process
    bool isStopped = false;       ///< by a signal, until another one lets it go on
};

/// Those that a connection to 127.0.0.1 can reach.
std::vector<Listener> on(uint16_t port);

/// Whether there are any. Cheaper.
bool areOn(uint16_t port);

/// "statusbroker (process 123)", or that it cannot be told.
std::string nameOf(const Listener& listener);

} // namespace Listeners

#endif
