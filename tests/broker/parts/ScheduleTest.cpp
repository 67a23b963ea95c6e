#include "broker/Schedule.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint start = TimePoint() + 1h;

class ScheduleTest : public testing::Test
{
protected:
    // Counts its runs. After each run, it waits for its next time.
    struct Task
    {
        TimePoint due = TimePoint::max();
        int done = 0;
        TimePoint doneAt{};
    };

    ScheduleTest()
    {
        for (Task* task : {&one, &other})
        {
            schedule.add([task] { return task->due; },
                         [task](TimePoint now)
                         {
                             ++task->done;
                             task->doneAt = now;
                             task->due = TimePoint::max();
                         });
        }
    }

    Schedule schedule;
    Task one;
    Task other;
};

} // namespace

TEST_F(ScheduleTest, withoutTasksNothingIsEverDue)
{
    Schedule empty;
    EXPECT_EQ(empty.next(), TimePoint::max());
    empty.doWhatIsDue(start);
}

TEST_F(ScheduleTest, theEarliestTaskIsTheNext)
{
    EXPECT_EQ(schedule.next(), TimePoint::max());
    one.due = start + 2s;
    EXPECT_EQ(schedule.next(), start + 2s);
    other.due = start + 1s;
    EXPECT_EQ(schedule.next(), start + 1s);
}

TEST_F(ScheduleTest, aRoundMayBeDueBeforeTheEarliestTask)
{
    TimePoint round = start + 1s;
    schedule.addRound([&] { return round; });
    one.due = start + 2s;
    EXPECT_EQ(schedule.next(), start + 1s);
    round = start + 3s;
    EXPECT_EQ(schedule.next(), start + 2s);
}

TEST_F(ScheduleTest, onlyWhatIsDueIsDone)
{
    one.due = start;
    other.due = start + 1ns;
    schedule.doWhatIsDue(start);
    EXPECT_EQ(one.done, 1);
    EXPECT_EQ(one.doneAt, start);
    EXPECT_EQ(other.done, 0);
    schedule.doWhatIsDue(start + 1ns);
    EXPECT_EQ(one.done, 1);
    EXPECT_EQ(other.done, 1);
}
