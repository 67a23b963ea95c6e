#ifndef TESTS_SUPPORT_UNREADBYTES_H
#define TESTS_SUPPORT_UNREADBYTES_H

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

/// Unread bytes that connections of a port have received, as the kernel counts them.
inline unsigned long unreadBytes(uint16_t port)
{
    constexpr int hexadecimal = 16;
    std::ifstream table("/proc/self/net/tcp");
    unsigned long sum = 0;
    std::string line;
    for (std::getline(table, line); std::getline(table, line);)
    {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        std::string remote;
        std::string state;
        std::string queues;
        fields >> slot >> local >> remote >> state >> queues;
        const bool isConnected = state == "01" || state == "08";
        if (isConnected && std::stoul(local.substr(local.find(':') + 1), nullptr, hexadecimal) == port)
            sum += std::stoul(queues.substr(queues.find(':') + 1), nullptr, hexadecimal);
    }
    return sum;
}

#endif
