// Preloaded into emulated programs. It replaces calls that the emulator handles differently from the kernel.
// For TCP_INFO and SIOCOUTQNSD see Words.h.

#include "tests/emulation/Words.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

template <class Function>
Function original(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int ask(int descriptor, int level, int option, void* value, socklen_t* size)
{
    static const auto function = original<int (*)(int, int, int, void*, socklen_t*)>("getsockopt");
    return function(descriptor, level, option, value, size);
}

int askForWord(int descriptor, int option, void* word)
{
    socklen_t size = sizeof(uint32_t);
    return ask(descriptor, IPPROTO_TCP, option, word, &size);
}

int askForInfo(int descriptor, void* value, socklen_t* size)
{
    tcp_info info{};
    auto* bytes = reinterpret_cast<char*>(&info);
    for (std::size_t at = 0; at + sizeof(uint32_t) <= sizeof(info); at += sizeof(uint32_t))
        if (askForWord(descriptor, firstWordOfInfo + static_cast<int>(at / sizeof(uint32_t)), bytes + at) !=
            0)
            return -1;
    *size = std::min<socklen_t>(*size, sizeof(info));
    memcpy(value, &info, *size);
    return 0;
}

[[noreturn]] void execute(const char* file, const posix_spawnattr_t* attributes, char* const* arguments,
                          char* const* environment, int failure)
{
    sigset_t mask;
    posix_spawnattr_getsigmask(attributes, &mask);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execvpe(file, arguments, environment);
    const int error = errno;
    static_cast<void>(write(failure, &error, sizeof(error)) == sizeof(error));
    _exit(EXIT_FAILURE);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int getsockopt(int descriptor, int level, int option,
                                                                 void* value, socklen_t* size) noexcept
{
    return level == IPPROTO_TCP && option == TCP_INFO ? askForInfo(descriptor, value, size)
                                                      : ask(descriptor, level, option, value, size);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request,
                                                            ...) noexcept
{
    va_list list;
    va_start(list, request);
    void* argument = va_arg(list, void*);
    va_end(list);
    if (request == SIOCOUTQNSD)
        return askForWord(descriptor, unsentBytes, argument);
    static const auto function = original<int (*)(int, unsigned long, ...)>("ioctl");
    return function(descriptor, request, argument);
}

// In the C library's version, parent and child share memory, by which the child reports that it cannot start
// the program. Emulated processes share none, so the report would be lost. This version supports only what
// the tool needs: the signal mask.
extern "C" __attribute__((visibility("default"))) int
posix_spawnp(pid_t* child, const char* file, const posix_spawn_file_actions_t*,
             const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment)
{
    int failure[2];
    if (pipe2(failure, O_CLOEXEC) != 0)
        return errno;
    *child = fork();
    if (*child == 0)
        execute(file, attributes, arguments, environment, failure[1]);
    close(failure[1]);
    int error = *child == -1 ? errno : 0;
    if (read(failure[0], &error, sizeof(error)) > 0)
        waitpid(*child, nullptr, 0);
    close(failure[0]);
    return error;
}
