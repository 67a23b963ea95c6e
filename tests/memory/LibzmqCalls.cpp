#include "tests/memory/LibzmqCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <sys/prctl.h>
#include <zmq.h>

#include "tests/memory/FailingMemory.h"

namespace
{

std::atomic<unsigned> receives{0};
std::atomic<unsigned> closed{0};

bool isNotifyThread()
{
    std::array<char, 16> name{};
    prctl(PR_GET_NAME, name.data());
    return std::strcmp(name.data(), "ProcessStatusMe") == 0;
}

// Whether libzmq has no memory for a message of this size. Small messages need none.
bool lacksMemoryFor(size_t size)
{
    constexpr size_t mostInTheMessageItself = 33;
    if (size <= mostInTheMessageItself || !FailingMemory::fails())
        return false;
    errno = ENOMEM;
    return true;
}

// Calls libzmq's function of this name and type.
template <class Result, class... A>
Result pass(const char* name, Result (*)(A...), A... arguments)
{
    const FailingMemory::Spared spared;
    return reinterpret_cast<Result (*)(A...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

} // namespace

unsigned LibzmqCalls::notifyReceives()
{
    return receives;
}

unsigned LibzmqCalls::closes()
{
    return closed;
}

void* zmq_ctx_new()
{
    return pass("zmq_ctx_new", &zmq_ctx_new);
}

int zmq_ctx_destroy(void* context)
{
    ++closed;
    return pass("zmq_ctx_destroy", &zmq_ctx_destroy, context);
}

void* zmq_socket(void* context, int type)
{
    return pass("zmq_socket", &zmq_socket, context, type);
}

int zmq_close(void* socket)
{
    ++closed;
    return pass("zmq_close", &zmq_close, socket);
}

int zmq_connect(void* socket, const char* endpoint)
{
    return pass("zmq_connect", &zmq_connect, socket, endpoint);
}

int zmq_setsockopt(void* socket, int option, const void* value, size_t size)
{
    return pass("zmq_setsockopt", &zmq_setsockopt, socket, option, value, size);
}

int zmq_getsockopt(void* socket, int option, void* value, size_t* size)
{
    return pass("zmq_getsockopt", &zmq_getsockopt, socket, option, value, size);
}

int zmq_send(void* socket, const void* data, size_t size, int flags)
{
    if (lacksMemoryFor(size))
        return -1;
    return pass("zmq_send", &zmq_send, socket, data, size, flags);
}

int zmq_recv(void* socket, void* data, size_t size, int flags)
{
    if (isNotifyThread())
        ++receives;
    return pass("zmq_recv", &zmq_recv, socket, data, size, flags);
}

int zmq_msg_init_size(zmq_msg_t* message, size_t size)
{
    if (lacksMemoryFor(size))
        return -1;
    return pass("zmq_msg_init_size", &zmq_msg_init_size, message, size);
}

int zmq_msg_init_data(zmq_msg_t* message, void* data, size_t size, zmq_free_fn* release, void* hint)
{
    if (FailingMemory::fails())
    {
        errno = ENOMEM;
        return -1;
    }
    return pass("zmq_msg_init_data", &zmq_msg_init_data, message, data, size, release, hint);
}

int zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    return pass("zmq_msg_send", &zmq_msg_send, message, socket, flags);
}

int zmq_msg_close(zmq_msg_t* message)
{
    return pass("zmq_msg_close", &zmq_msg_close, message);
}

const char* zmq_strerror(int error)
{
    return pass("zmq_strerror", &zmq_strerror, error);
}
