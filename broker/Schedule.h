#ifndef BROKER_SCHEDULE_H
#define BROKER_SCHEDULE_H

#include <algorithm>
#include <functional>
#include <vector>

#include "daemon/Clock.h"

/// The loop's tasks, each with its time.
class Schedule
{
public:
    using Due = std::function<TimePoint()>;
    using Task = std::function<void(TimePoint now)>;

    /// @param due returns when to run the task next; TimePoint::max(): not now
    void add(Due due, Task task) { mTasks.push_back({std::move(due), std::move(task)}); }

    /// The same for work that every round of the loop does by itself: only the round must come in time.
    void addRound(Due due) { mRounds.push_back(std::move(due)); }

    /// When the next task or round is due.
    TimePoint next() const
    {
        TimePoint next = TimePoint::max();
        for (const Entry& entry : mTasks)
            next = std::min(next, entry.due());
        for (const Due& due : mRounds)
            next = std::min(next, due());
        return next;
    }

    void doWhatIsDue(TimePoint now)
    {
        for (const Entry& entry : mTasks)
        {
            if (entry.due() <= now)
                entry.task(now);
        }
    }

private:
    struct Entry
    {
        Due due;
        Task task;
    };

    std::vector<Entry> mTasks;
    std::vector<Due> mRounds;
};

#endif
