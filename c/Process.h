#ifndef C_PROCESS_H
#define C_PROCESS_H

#include <atomic>
#include <cstdint>

#include "c/Allowance.h"
#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace StatusC
{

/// What all open statuses of the process share. Made by the first use, and never destroyed: its thread may
/// wait for the broker when the process ends.
class Process
{
public:
    /// @throws std::system_error without a thread
    static Process& instance();

    /// Whether this process is a forked child, in which the library's threads do not exist. Needs neither a
    /// lock nor memory, because in a child a lock, also that of the allocator, may be held for ever.
    static bool isForked() noexcept;
    /// From now on, children are refused.
    static void claim();

    /// Asks the questions, one after another. A question may block it as long as the broker is silent.
    Orvane::EventThread& asker() { return mAsker; }

    Allowance& allowance() { return mAllowance; }

    /// Whether the broker still answers the manager. Waits for the broker without a time limit. Asker's
    /// thread or manager's thread.
    bool isAnswered(StatusManager& manager);

    /// How often it became known that posts of this process may have been lost. Never less than before.
    uint64_t losses(StatusManager& manager) const;
    /// A post of this process is lost.
    void countLoss() noexcept { ++mLosses; }

private:
    Process() = default;

    Allowance mAllowance;
    std::atomic<uint64_t> mLosses{0};
    Orvane::EventThread mAsker{"StatusQuestions", 0};
};

} // namespace StatusC

#endif
