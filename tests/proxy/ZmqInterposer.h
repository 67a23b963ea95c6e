#ifndef TESTS_PROXY_ZMQINTERPOSER_H
#define TESTS_PROXY_ZMQINTERPOSER_H

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

/// Intercepts the broker client's calls of libzmq in a program that links it. It records the calls of the
/// client's two threads in order, and makes chosen calls fail without reaching libzmq. Calls of all other
/// threads, such as the scripted broker's, pass unrecorded.
namespace ZmqInterposer
{

struct Call
{
    std::string name; ///< in the form that fail() takes
    int result = 0;   ///< 0 also for calls that made a socket or a context
    std::thread::id thread;
};

/// The calls since reset(), without receives and getsockopt.
std::vector<Call> calls();
std::vector<std::string> names();

/// The number of such calls since reset(), receives included.
std::size_t count(const std::string& name);

/// Makes each such call fail from now on, with errno EFAULT: "zmq_ctx_new", "zmq_socket PUB", "zmq_connect
/// PUB", "zmq_setsockopt SUB", "zmq_send REQ", "zmq_recv SUB".
void fail(const std::string& name);

/// Discards all recorded calls and failures.
void reset();

} // namespace ZmqInterposer

#endif
