#ifndef BROKER_PEER_PROCESSSOCKETS_H
#define BROKER_PEER_PROCESSSOCKETS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>

#include "broker/peer/Processes.h"
#include "daemon/Clock.h"

/// Tells that a process does not have a socket. The search for the process of a socket takes long, but a look
/// at the sockets of one process does not.
///
/// A look is remembered for the connections that were accepted before it. After a look there is a pause of 20
/// times its duration. So all looks together take at most a twentieth of the time.
class ProcessSockets
{
public:
    /// @param processes lives as long as this
    explicit ProcessSockets(const Processes& processes) : mProcesses(processes) {}

    /// Whether it is certain that a process does not have a socket. Looks at once, for about a millisecond at
    /// most, unless there is a pause.
    /// @param own a socket that the process with this number and program has. If it is not seen, nothing is
    /// certain: the process may be another one by now, or its descriptors may be hidden
    /// @param acceptedAt when the connection with the socket was accepted
    bool lacks(uint64_t inode, TimePoint acceptedAt, pid_t pid, const std::string& program, uint64_t own);

private:
    struct Look
    {
        std::string program;
        Processes::Sockets sockets;
        TimePoint begin;
    };

    static constexpr std::size_t mostLooks = 16;

    const Processes& mProcesses;
    std::unordered_map<pid_t, Look> mLooks;
    TimePoint mEndOfPause{};
};

#endif
