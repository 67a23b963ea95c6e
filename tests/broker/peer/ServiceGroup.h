#ifndef TESTS_BROKER_PEER_SERVICEGROUP_H
#define TESTS_BROKER_PEER_SERVICEGROUP_H

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "broker/peer/OwnerQuery.h"
#include "broker/peer/Services.h"
#include "tests/broker/peer/Ends.h"
#include "tests/support/Wait.h"

/// A control group of this machine, as systemd makes it for a service, and below it a group that the service
/// has made. Only root can make control groups, and not in a container that mounts them read-only.
class ServiceGroup
{
public:
    /// @param name without ".service"
    explicit ServiceGroup(const std::string& name)
    {
        const std::string slice =
            root() + "/statusmanagertest" + std::to_string(getpid()) + "-" + name + ".slice";
        mFolders = {slice, slice + "/" + name + ".service", slice + "/" + name + ".service/own.service"};
        for (const std::string& folder : mFolders)
        {
            if (mError == 0 && mkdir(folder.c_str(), 0755) != 0)
                mError = errno;
        }
    }

    ~ServiceGroup()
    {
        for (auto folder = mFolders.rbegin(); folder != mFolders.rend(); ++folder)
            eventually([&] { return rmdir(folder->c_str()) == 0 || errno != EBUSY; });
    }

    ServiceGroup(const ServiceGroup&) = delete;
    ServiceGroup& operator=(const ServiceGroup&) = delete;

    /// Why this machine cannot make such a group, or does not report whose connection is in it; empty if it
    /// can.
    std::string lack() const
    {
        if (isEmulated)
            return "the emulator has no sockets that tell a control group";
        if (root().empty())
            return "no control groups of version 2";
        if (mError == EACCES || mError == EPERM || mError == EROFS)
            return "this process may not make control groups";
        return isToldByKernel() ? "" : "this kernel tells no control groups at all (before Linux 5.7)";
    }

    /// Moves the calling process into it.
    void enter() const { std::ofstream(mFolders.back() + "/cgroup.procs") << getpid() << std::flush; }

    static std::string root() { return Services::rootIn("/proc"); }

private:
    static bool isToldByKernel()
    {
        Ends own;
        own.connect();
        OwnerQuery query;
        return query.ask(own.peerAddress, own.address).cgroup().has_value();
    }

    std::array<std::string, 3> mFolders;
    int mError = 0;
};

#endif
