// Preloaded into the emulator: see Words.h.

#include "tests/emulation/Words.h"

#include <cstdint>
#include <cstring>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

// An emulated thread is a thread of the emulator. So each thread reads the words of its own call.
thread_local tcp_info info;

int ask(int descriptor, int level, int option, void* value, socklen_t* size)
{
    return static_cast<int>(syscall(SYS_getsockopt, descriptor, level, option, value, size));
}

int askForWord(int descriptor, int index, void* value, socklen_t* size)
{
    socklen_t infoSize = sizeof(info);
    if (index == 0 && ask(descriptor, IPPROTO_TCP, TCP_INFO, &info, &infoSize) != 0)
        return -1;
    *size = sizeof(uint32_t);
    memcpy(value, reinterpret_cast<const char*>(&info) + sizeof(uint32_t) * static_cast<unsigned>(index),
           *size);
    return 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int getsockopt(int descriptor, int level, int option,
                                                                 void* value, socklen_t* size) noexcept
{
    constexpr int words = sizeof(info) / sizeof(uint32_t);
    if (level == IPPROTO_TCP && option == unsentBytes)
        return ioctl(descriptor, SIOCOUTQNSD, value);
    if (level == IPPROTO_TCP && option >= firstWordOfInfo && option < firstWordOfInfo + words)
        return askForWord(descriptor, option - firstWordOfInfo, value, size);
    return ask(descriptor, level, option, value, size);
}
