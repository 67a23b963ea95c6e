#ifndef BROKER_DESCRIPTORS_H
#define BROKER_DESCRIPTORS_H

#include <cstddef>

/// The limit of open files, which bounds the number of connections.
namespace Descriptors
{

/// Raises this process's soft limit so that this many connections per port fit, up to the hard limit. Returns
/// the new limit.
std::size_t raiseLimit(std::size_t connectionsPerPort);

/// How many connections per port fit into a limit.
std::size_t connectionsPerPort(std::size_t limit);

} // namespace Descriptors

#endif
