#ifndef BROKER_PEER_SERVICES_H
#define BROKER_PEER_SERVICES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "daemon/Clock.h"

/// Finds the systemd service that a control group belongs to. A control group's id is the number of its
/// folder in the kernel's tree. So this walks the folders and remembers them.
///
/// The service is the first folder behind the slices whose name ends in ".service" or ".scope". Folders below
/// it may be delegated, for example to the user manager, and could have any name. So
/// user@1000.service/app.slice/net.service belongs to user@1000.service. Folders beside the slices, such as
/// those of containers, belong to no service.
class Services
{
public:
    enum class Knowledge
    {
        Named,
        NoService, ///< the control group exists and belongs to no service
        Unknown,   ///< gone, or not visible from here
        Later,     ///< not looked for now, because unknown ids have been asked for too often; ask again
    };

    struct Answer
    {
        Knowledge knowledge;
        std::string name; ///< "net.service"; empty unless Named
    };

    /// The most folders in one walk, and in one service: a service that makes many folders must not hide
    /// other services.
    static constexpr std::size_t mostFolders = 4096;
    static constexpr std::size_t mostFoldersOfAService = 256;

    /// How many folders the broker looks at in a burst, and per second, however many unknown ids are asked
    /// for. Otherwise a client that makes control groups could keep the broker walking.
    static constexpr long burst = 8192;
    static constexpr long foldersPerSecond = 1024;

    /// @param root the folder of the tree, as from rootIn(); empty: every control group is unknown
    /// @param now the clock that measures the rate of the walks; tests pass their own
    explicit Services(std::string root, TimePoint (*now)() = &Clock::now);

    /// Where the version 2 tree is mounted; empty if it is not, or only a part of it.
    /// @param proc "/proc"
    static std::string rootIn(const std::string& proc);

    /// Whether there is a tree.
    bool isThere() const { return !mRoot.empty(); }

    /// A control group never seen before takes a walk: some microseconds for each folder.
    Answer find(uint64_t controlGroup);

    /// The unit that a folder of the tree stands for; empty unless it is a service or a scope. Systemd puts
    /// "_" before names that the kernel reserves.
    static std::string unitOf(const std::string& folder);

private:
    class Walk;

    bool mayWalk();
    void walk(uint64_t wanted);
    Answer known(uint64_t controlGroup) const;

    const std::string mRoot;
    TimePoint (*const mNow)();
    std::unordered_map<uint64_t, std::string> mNames; ///< by id; empty if it belongs to no service
    std::unordered_set<uint64_t> mMissing;            ///< looked for in vain; ids are never reused
    long mAllowance = burst;                          ///< of folders; negative after a walk that exceeded it
    TimePoint mRefilled;
};

#endif
