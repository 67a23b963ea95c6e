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

    /// When the next task is due.
    TimePoint next() const
    {
        TimePoint next = TimePoint::max();
        for (const Entry& entry : mTasks)
            next = std::min(next, entry.due());
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
};

#endif
