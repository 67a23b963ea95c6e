#include "tests/proxy/ZmqInterposer.h"

#include <cerrno>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <set>
#include <zmq.h>

namespace
{

struct State
{
    std::mutex mutex;
    std::vector<ZmqInterposer::Call> calls;
    std::map<std::string, std::size_t> counts;
    std::set<std::string> failing;
    std::map<void*, std::string> types; // of all sockets, also of closed ones
};

// Never destroyed: threads may call it until the process ends.
State& state()
{
    static auto* instance = new State;
    return *instance;
}

template <class Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool isClientsThread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    const std::string own = name;
    return own == "StatusManager" || own == "ProcessStatusMe";
}

const char* typeName(int type)
{
    switch (type)
    {
    case ZMQ_PUB:
        return "PUB";
    case ZMQ_SUB:
        return "SUB";
    case ZMQ_REQ:
        return "REQ";
    default:
        return "other";
    }
}

std::string on(const char* function, void* socket)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto type = state().types.find(socket);
    return std::string(function) + " " + (type == state().types.end() ? "none" : type->second);
}

bool mustFail(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().failing.count(name) != 0;
}

void record(const std::string& name, int result, bool listed)
{
    const int error = errno;
    const std::lock_guard<std::mutex> lock(state().mutex);
    ++state().counts[name];
    if (listed)
        state().calls.push_back({name, result, std::this_thread::get_id()});
    errno = error;
}

// Makes the call, or makes it fail.
template <class Call>
auto through(const std::string& name, decltype(std::declval<Call>()()) failure, bool listed, Call call)
{
    if (!isClientsThread())
        return call();
    auto result = failure;
    if (mustFail(name))
        errno = EFAULT;
    else
        result = call();
    record(name, result == failure ? -1 : 0, listed);
    return result;
}

} // namespace

namespace ZmqInterposer
{

std::vector<Call> calls()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().calls;
}

std::vector<std::string> names()
{
    std::vector<std::string> all;
    for (const Call& call : calls())
        all.push_back(call.name);
    return all;
}

std::size_t count(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto counted = state().counts.find(name);
    return counted == state().counts.end() ? 0 : counted->second;
}

void fail(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().failing.insert(name);
}

void reset()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().calls.clear();
    state().counts.clear();
    state().failing.clear();
}

} // namespace ZmqInterposer

// -------------------------------------------------------------------------------- replaces libzmq's
// functions

void* zmq_ctx_new()
{
    void* const none = nullptr;
    return through("zmq_ctx_new", none, true, next<decltype(zmq_ctx_new)>("zmq_ctx_new"));
}

int zmq_ctx_destroy(void* context)
{
    return through("zmq_ctx_destroy", -1, true,
                   [&] { return next<decltype(zmq_ctx_destroy)>("zmq_ctx_destroy")(context); });
}

void* zmq_socket(void* context, int type)
{
    void* const none = nullptr;
    return through(std::string("zmq_socket ") + typeName(type), none, true,
                   [&]
                   {
                       void* socket = next<decltype(zmq_socket)>("zmq_socket")(context, type);
                       const std::lock_guard<std::mutex> lock(state().mutex);
                       state().types[socket] = typeName(type);
                       return socket;
                   });
}

int zmq_close(void* socket)
{
    return through(on("zmq_close", socket), -1, true,
                   [&] { return next<decltype(zmq_close)>("zmq_close")(socket); });
}

int zmq_connect(void* socket, const char* endpoint)
{
    return through(on("zmq_connect", socket), -1, true,
                   [&] { return next<decltype(zmq_connect)>("zmq_connect")(socket, endpoint); });
}

int zmq_setsockopt(void* socket, int option, const void* value, size_t size)
{
    return through(on("zmq_setsockopt", socket), -1, true,
                   [&]
                   { return next<decltype(zmq_setsockopt)>("zmq_setsockopt")(socket, option, value, size); });
}

int zmq_send(void* socket, const void* data, size_t size, int flags)
{
    return through(on("zmq_send", socket), -1, true,
                   [&] { return next<decltype(zmq_send)>("zmq_send")(socket, data, size, flags); });
}

// PostFlow sends posts by this function; tests need not know the difference.
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    return through(on("zmq_send", socket), -1, true,
                   [&] { return next<decltype(zmq_msg_send)>("zmq_msg_send")(message, socket, flags); });
}

int zmq_recv(void* socket, void* data, size_t size, int flags)
{
    return through(on("zmq_recv", socket), -1, false,
                   [&] { return next<decltype(zmq_recv)>("zmq_recv")(socket, data, size, flags); });
}
