#include "tests/bridge/MqttServer.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

int freePort()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    const bool isBound = bind(listener, plain, size) == 0 && getsockname(listener, plain, &size) == 0;
    close(listener);
    if (!isBound)
        throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

MqttServer::MqttServer(const std::string& options)
{
    // The server may give up root's rights.
    const std::string data = mFolder / "data";
    mkdir(data.c_str(), 0777);
    chmod((mFolder / ".").c_str(), 0755);
    chmod(data.c_str(), 0777);
    writeFile(mFolder / "server.conf", "per_listener_settings false\nlistener " + std::to_string(mPort) +
                                           " 127.0.0.1\npersistence true\npersistence_location " + data +
                                           "/\nautosave_on_changes true\nautosave_interval 1\nlog_type "
                                           "notice\nlog_type information\nlog_type error\nlog_dest file " +
                                           data + "/log\n" + options);
    start();
}

// It logs to a file: a pipe that nobody reads gets full, and a server that waits for room in it serves
// nobody.
void MqttServer::start()
{
    std::remove((mFolder / "data/log").c_str());
    mProcess.emplace(std::vector<std::string>{MOSQUITTO, "-c", mFolder / "server.conf"});
    if (!waitForLog("running"))
        throw std::runtime_error("the server did not start: " + log());
}

void MqttServer::stop(int signal)
{
    mProcess->signal(signal);
    mProcess->waitForExit();
}

std::string MqttServer::log() const
{
    return readFile(mFolder / "data/log");
}

bool MqttServer::waitForLog(const std::string& text) const
{
    return eventually([&] { return log().find(text) != std::string::npos; });
}
