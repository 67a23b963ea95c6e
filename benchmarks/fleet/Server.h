#ifndef BENCHMARKS_FLEET_SERVER_H
#define BENCHMARKS_FLEET_SERVER_H

#include <string>
#include <sys/types.h>

/// An MQTT server that the benchmark starts and kills.
class Server
{
public:
    /// @param folder for its configuration
    Server(std::string folder, int port);
    ~Server() { kill(); }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void start();
    void kill();

    int port() const { return mPort; }
    double cpuSeconds() const;
    long residentKiB() const;

private:
    const std::string mFile;
    const int mPort;
    pid_t mPid = -1;
};

/// The same of this process.
double ownCpuSeconds();
long ownResidentKiB();

#endif
