#ifndef BROKER_PEER_SERVICES_H
#define BROKER_PEER_SERVICES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "broker/base/Clock.h"

/// Which service of systemd a control group belongs to. The id of a control group is the number of its folder
/// in the kernel's tree, so the folders are walked and remembered.
///
/// The service is the first folder behind the slices whose name ends in ".service" or ".scope". Folders below
/// may be delegated, as to the user manager, and could have any name: user@1000.service/app.slice/net.service
/// belongs to user@1000.service. Folders beside the slices, as of containers, belong to no service.
class Services
{
public:
    enum class Knowledge
    {
        Named,
        NoService, ///< the control group exists and belongs to no service
        Unknown,   ///< gone, or outside what can be seen from here
        Later,     ///< not looked for now: unknown ids have been asked for too often; ask again
    };

    struct Answer
    {
        Knowledge knowledge;
        std::string name; ///< "net.service"; empty unless Named
    };

    /// A walk looks at so many folders at most, and at so many of one service: a service that makes folders
    /// must not hide others.
    static constexpr std::size_t mostFolders = 4096;
    static constexpr std::size_t mostFoldersOfAService = 256;

    /// The broker looks at so many folders at once, and at so many a second, however many unknown ids are
    /// asked for. Otherwise a client that makes control groups could keep the broker walking.
    static constexpr long burst = 8192;
    static constexpr long foldersPerSecond = 1024;

    /// @param root the folder of the tree, as from rootIn(); empty: every control group is unknown
    /// @param now for tests: what to measure the walks' rate with
    explicit Services(std::string root, TimePoint (*now)() = &Clock::now);

    /// Where the tree of version 2 is mounted; empty if it is not, or only a part of it.
    /// @param proc "/proc"
    static std::string rootIn(const std::string& proc);

    /// There is a tree.
    bool isThere() const { return !mRoot.empty(); }

    /// A control group never seen before takes a walk: some microseconds for each folder.
    Answer find(uint64_t controlGroup);

    /// The unit that a folder of the tree stands for: systemd puts "_" before names that the kernel could
    /// mean. Empty unless it is a service or a scope.
    static std::string unitOf(const std::string& folder);

private:
    class Walk;

    bool mayWalk();
    void walk(uint64_t wanted);
    Answer known(uint64_t controlGroup) const;

    const std::string mRoot;
    TimePoint (*const mNow)();
    std::unordered_map<uint64_t, std::string> mNames; ///< by id; empty if it belongs to no service
    std::unordered_set<uint64_t> mMissing;            ///< looked for in vain; ids are never used again
    long mAllowance = burst;                          ///< folders; negative after a walk that took more
    TimePoint mRefilled;
};

#endif
