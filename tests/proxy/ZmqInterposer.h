#ifndef TESTS_PROXY_ZMQINTERPOSER_H
#define TESTS_PROXY_ZMQINTERPOSER_H

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

/// Stands between the broker client and libzmq in a program that links it: sees the calls that the client's
/// two threads make, in their order, and makes chosen ones fail without reaching libzmq. All other threads,
/// and so the scripted broker, pass by unseen.
namespace ZmqInterposer
{

struct Call
{
    std::string name; ///< as fail() takes it
    int result = 0;   ///< 0 as well for those that made a socket or a context
    std::thread::id thread;
};

/// The calls since reset(), but for receives and getsockopt.
std::vector<Call> calls();
std::vector<std::string> names();

/// The number of such calls since reset(); counts receives, too.
std::size_t count(const std::string& name);

/// Makes each such call fail from now on, with errno EFAULT: "zmq_ctx_new", "zmq_socket PUB", "zmq_connect
/// PUB", "zmq_setsockopt SUB", "zmq_send REQ", "zmq_recv SUB".
void fail(const std::string& name);

/// Forgets all calls and failures.
void reset();

} // namespace ZmqInterposer

#endif
