#include "benchmarks/fleet/Server.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

double cpuSecondsOf(const std::string& process)
{
    constexpr int fieldsBefore = 11; // the state, and what is before the user's time
    std::ifstream fields("/proc/" + process + "/stat");
    std::string field;
    std::getline(fields, field, ')'); // "1 (name"
    for (int i = 0; i < fieldsBefore; ++i)
        fields >> field;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long residentKiBOf(const std::string& process)
{
    std::ifstream file("/proc/" + process + "/status");
    for (std::string line; std::getline(file, line);)
    {
        if (line.compare(0, 6, "VmRSS:") == 0)
            return std::stol(line.substr(6));
    }
    return 0;
}

} // namespace

Server::Server(std::string folder, int port) : mFile(std::move(folder) + "/server.conf"), mPort(port)
{
    std::ofstream(mFile) << "listener " << port
                         << " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\nlog_type error\n";
}

void Server::start()
{
    mPid = fork();
    if (mPid == -1)
        throw std::runtime_error("the server cannot be started");
    if (mPid != 0)
        return;
    execlp("mosquitto", "mosquitto", "-c", mFile.c_str(), static_cast<char*>(nullptr));
    execl("/usr/sbin/mosquitto", "mosquitto", "-c", mFile.c_str(), static_cast<char*>(nullptr));
    _exit(1);
}

void Server::kill()
{
    if (mPid == -1)
        return;
    ::kill(mPid, SIGKILL);
    waitpid(std::exchange(mPid, -1), nullptr, 0);
}

double Server::cpuSeconds() const
{
    return cpuSecondsOf(std::to_string(mPid));
}

long Server::residentKiB() const
{
    return residentKiBOf(std::to_string(mPid));
}

double ownCpuSeconds()
{
    return cpuSecondsOf("self");
}

long ownResidentKiB()
{
    return residentKiBOf("self");
}
