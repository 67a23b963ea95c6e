#ifndef BROKER_PEER_SAMEPROCESS_H
#define BROKER_PEER_SAMEPROCESS_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <tuple>

#include "broker/peer/Identity.h"

// Whether connections belong to the same process, as far as the broker knows. It may not be allowed to look
// for processes; then user and control group decide. Pure functions.

/// Whether one process is likely to have made both connections: they have the same process, or, if a process
/// is unknown or shares its socket with others, the same user and control group. An unknown user matches no
/// other.
bool mayBeSameProcess(const Identity& one, const Identity& other);

/// The same for a client that lacks a poster as long as none is found: a client of an unknown user would lack
/// one for ever, so any poster that may be its own counts.
bool mayBePosterOf(const Identity& client, const Identity& poster);

/// Whether the broker has found out that different processes made the two connections. Users and control
/// groups count only after both processes have been looked for. An unknown user shows nothing.
bool areDifferentProcesses(const Identity& one, const Identity& other);

/// Whether the connection belongs to the process with this number and program. After a process has ended,
/// another may get its number.
/// @param pid 0: unknown, matches nothing
bool isOfProcess(const Identity& identity, pid_t pid, const std::string& program);

/// User, control group and process of a connection.
using ClientKey = std::tuple<std::optional<uid_t>, uint64_t, pid_t>;

/// Connections with the same key are listed as one client. If the process is unknown, user and control group
/// must match.
/// @returns nothing if user and process are unknown: the connection stands alone
std::optional<ClientKey> clientKeyOf(const Identity& identity);

#endif
