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

#include "daemon/Clock.h"
#include "daemon/Descriptor.h"

/// Finds the processes that have a socket, for people to read, and to know whose posts to wait for. They
/// never decide what a client may do: a process may hand a socket on, end, or give itself any program name.
/// Where the broker may not look into another user's processes, it finds none.
///
/// The kernel cannot be asked for the process of a socket. So this looks at the descriptors of all processes,
/// a few at a time.
class Processes
{
public:
    struct Found
    {
        uint64_t inode = 0;  ///< the socket
        pid_t pid = 0;       ///< the lowest of the processes that have it; 0 if none was found
        std::string program; ///< its name, as printable ASCII
        bool others = false; ///< other processes have it, too
    };

    /// The most sockets that are looked for at a time.
    static constexpr std::size_t mostWanted = 4096;

    /// @param proc the folder of processes; tests pass another
    explicit Processes(std::string proc = "/proc");

    /// Starts to look for the process of this socket. Returns false if too many searches are under way.
    bool want(uint64_t inode);

    /// Ends the search for this socket.
    void forget(uint64_t inode);

    /// Whether a search is under way.
    bool hasWork() const { return !mWanted.empty() || !mNext.empty(); }

    /// Continues where it stopped. A socket that is added during a pass is looked for in the next pass.
    /// @param atMost time limit; at least one step of some microseconds is done
    /// @returns the sockets that were looked for everywhere; only at the end of a pass
    std::vector<Found> work(Clock::duration atMost);

    struct Sockets
    {
        std::set<uint64_t> inodes;
        bool areAll = false; ///< false for a process with very many descriptors, and if there was none to see
    };

    /// The sockets of a process that runs this program; none if it runs another program by now. Looks at
    /// once, apart from the searches.
    Sockets socketsOf(pid_t pid, const std::string& program) const;

    /// A name with a "?" for every byte that is not printable ASCII.
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
