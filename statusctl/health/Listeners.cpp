#include "statusctl/health/Listeners.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{

namespace fs = std::filesystem;

// Lines of /proc/net/tcp: number, local address:port, remote address:port, state, ..., inode in column 10.
void addInodes(const char* table, uint16_t port, std::vector<std::string>& inodes)
{
    constexpr const char* listening = "0A";
    std::ifstream file(table);
    std::string line;
    std::getline(file, line); // the heading
    while (std::getline(file, line))
    {
        std::istringstream words(line);
        std::array<std::string, 10> columns;
        for (std::string& column : columns)
            words >> column;
        const std::string& local = columns[1];
        const std::string& state = columns[3];
        const std::size_t colon = local.find(':');
        constexpr int hexadecimal = 16;
        if (words && state == listening && colon != std::string::npos &&
            std::strtoul(local.c_str() + colon + 1, nullptr, hexadecimal) == port)
            inodes.push_back(columns.back());
    }
}

std::vector<std::string> inodesOn(uint16_t port)
{
    std::vector<std::string> inodes;
    addInodes("/proc/net/tcp", port, inodes);
    addInodes("/proc/net/tcp6", port, inodes);
    return inodes;
}

bool hasSocket(const fs::path& process, const std::string& inode)
{
    const std::string wanted = "socket:[" + inode + "]";
    std::error_code error;
    for (fs::directory_iterator descriptor(process / "fd", error), end; !error && descriptor != end;
         descriptor.increment(error))
    {
        std::error_code gone;
        if (fs::read_symlink(descriptor->path(), gone) == wanted)
            return true;
    }
    return false;
}

std::string commandOf(const fs::path& process)
{
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// Reads "123 (name) T ...". The name may contain anything, also ")".
bool isStopped(const fs::path& process)
{
    std::ifstream file(process / "stat");
    std::string line;
    std::getline(file, line);
    const std::size_t end = line.rfind(')');
    return end != std::string::npos && line.compare(end, 3, ") T") == 0;
}

Listeners::Listener ownerOf(const std::string& inode)
{
    std::error_code error;
    for (fs::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error))
    {
        const std::string name = process->path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos && hasSocket(process->path(), inode))
            return {static_cast<pid_t>(std::atol(name.c_str())), commandOf(process->path()),
                    isStopped(process->path())};
    }
    return {};
}

} // namespace

std::vector<Listeners::Listener> Listeners::on(uint16_t port)
{
    std::vector<Listener> listeners;
    for (const std::string& inode : inodesOn(port))
        listeners.push_back(ownerOf(inode));
    return listeners;
}

bool Listeners::areOn(uint16_t port)
{
    return !inodesOn(port).empty();
}

std::string Listeners::nameOf(const Listener& listener)
{
    if (!listener.process)
        return "a program of another user (run this as root to learn which)";
    return listener.name + " (process " + std::to_string(*listener.process) + ")";
}
