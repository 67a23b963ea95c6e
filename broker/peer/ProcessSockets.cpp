#include "broker/peer/ProcessSockets.h"

#include "broker/peer/Rest.h"

bool ProcessSockets::lacks(uint64_t inode, TimePoint acceptedAt, pid_t pid, const std::string& program,
                           uint64_t own)
{
    auto look = mLooks.find(pid);
    if (look == mLooks.end() || look->second.begin <= acceptedAt || look->second.program != program)
    {
        const TimePoint begin = Clock::now();
        if (begin < mEndOfPause)
            return false;
        if (mLooks.size() >= mostLooks)
            mLooks.clear();
        look = mLooks.insert_or_assign(pid, Look{program, mProcesses.socketsOf(pid, program), begin}).first;
        mEndOfPause = endOfRest(begin, Clock::now());
    }
    const Processes::Sockets& sockets = look->second.sockets;
    return inode != 0 && sockets.areAll && sockets.inodes.count(own) != 0 && sockets.inodes.count(inode) == 0;
}
