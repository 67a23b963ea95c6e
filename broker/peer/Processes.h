#ifndef BROKER_PEER_PROCESSES_H
#define BROKER_PEER_PROCESSES_H

#include <cstddef>
#include <cstdint>
#include <dirent.h>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

#include "broker/base/Clock.h"
#include "broker/base/Descriptor.h"

/// Which processes have a socket, for people to read: never for decisions. A process may hand a socket on,
/// end, or give itself any program name; and where the broker may not look into another user's processes, it
/// finds none.
///
/// There is no way to ask for the process of a socket, so the descriptors of all processes are looked at, a
/// little at a time.
class Processes
{
public:
    struct Found
    {
        uint64_t inode = 0;  ///< the socket
        pid_t pid = 0;       ///< the lowest of those that have it; 0 if none was found
        std::string program; ///< its name, as printable ASCII
        bool others = false; ///< other processes have it, too
    };

    /// More sockets than this are not looked for at a time.
    static constexpr std::size_t mostWanted = 4096;

    /// @param proc where processes are; tests look elsewhere
    explicit Processes(std::string proc = "/proc");

    /// Looks for the process of this socket. False if too many are being looked for.
    bool want(uint64_t inode);

    /// Nobody wants to know any more.
    void forget(uint64_t inode);

    /// There is something to look for.
    bool hasWork() const { return !mWanted.empty() || !mNext.empty(); }

    /// Goes on where it stopped. Sockets that were wanted in the middle of a pass are looked for in the next
    /// one.
    /// @param atMost how long; one step of some microseconds is always done
    /// @returns those that have been looked for everywhere, at the end of a pass
    std::vector<Found> work(Clock::duration atMost);

    /// The sockets of a process that runs this program; none if another does by now. Of a process with very
    /// many descriptors, some of them. Looks at once, beside what is wanted.
    std::set<uint64_t> socketsOf(pid_t pid, const std::string& program) const;

    /// How names are told: every byte that is not printable ASCII is a "?".
    static std::string printable(std::string name);

private:
    struct CloseFolder
    {
        void operator()(DIR* folder) const { closedir(folder); }
    };
    using Folder = std::unique_ptr<DIR, CloseFolder>;

    static Folder folderAt(int parent, const std::string& path);

    void begin();
    bool step();
    void openProcess(const char* name);
    void lookAt(const char* descriptor);
    void note(Found& found);
    std::vector<Found> finish();

    const std::string mProc;
    std::unordered_map<uint64_t, Found> mWanted; ///< in this pass
    std::unordered_map<uint64_t, Found> mNext;   ///< in the next
    Folder mProcesses;                           ///< open in the middle of a pass
    Folder mDescriptors;                         ///< of the process that is being looked at
    Descriptor mProcess;
    pid_t mPid = 0;
};

#endif
