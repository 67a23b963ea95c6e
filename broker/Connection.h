#ifndef BROKER_CONNECTION_H
#define BROKER_CONNECTION_H

#include <cstddef>
#include <cstdint>
#include <optional>

/// What the kernel tells about a TCP connection of libzmq's, named by its descriptor. The descriptor belongs
/// to libzmq's I/O thread, which may close it at any time; so it is only asked and shut down here, and
/// whoever does that must know from the ConnectionMonitor that it is still the connection meant.
namespace Connection
{

/// Bytes that have arrived, what nobody has read yet included; nothing if the descriptor has just been
/// closed, or the kernel does not count them.
std::optional<uint64_t> bytesArrived(int descriptor);

/// Bytes that have arrived and wait in the kernel.
uint64_t bytesUnread(int descriptor);

/// Bytes that have arrived and been read.
std::optional<uint64_t> bytesRead(int descriptor);

struct Sent
{
    uint64_t handedOver;   ///< bytes handed to the kernel for sending
    uint64_t acknowledged; ///< bytes of them that have reached the peer's kernel
    uint64_t unsent = 0;   ///< bytes of them for which the peer's kernel has had no room yet
};

/// Nothing if the descriptor has just been closed, or the kernel does not count them.
std::optional<Sent> bytesSent(int descriptor);

/// Ends the connection. libzmq notices and closes it; a peer of the library's connects again by itself.
void cut(int descriptor);

/// Bytes of a frame on the connection, with its header.
uint64_t wireSize(std::size_t payload);

} // namespace Connection

#endif
