#ifndef BROKER_DESCRIPTORS_H
#define BROKER_DESCRIPTORS_H

#include <cstddef>

/// The limit of open files. Connections are limited to what there is.
namespace Descriptors
{

/// Raises this process's soft limit so that this many connections per port fit, as far as the hard limit
/// allows. Returns the limit.
std::size_t raiseLimit(std::size_t connectionsPerPort);

/// How many connections per port fit into a limit.
std::size_t connectionsPerPort(std::size_t limit);

} // namespace Descriptors

#endif
