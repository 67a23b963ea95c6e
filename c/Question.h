#ifndef C_QUESTION_H
#define C_QUESTION_H

#include <condition_variable>
#include <mutex>

#include "c/Item.h"
#include "c/Process.h"
#include "statusmanager/helpers/Deadline.h"

namespace StatusC
{

/// A question to the manager: one of enum status_question, or several values.
struct Question
{
    static constexpr int values = 100; ///< the values of several keys

    int kind;
    StatusKeys names = {}; ///< as the messages carry them; see askable()
};

/// Asks, and returns the answer. Waits for the broker without a time limit. Asker's thread.
Item answerTo(const Question& question, StatusManager& manager, Process& process) noexcept;

/// A thread that waits for an answer, and the answer.
class WaitingQuestion
{
public:
    /// Returns false at the deadline.
    bool wait(status::Deadline deadline);

    /// Ends the wait with this answer, unless it has ended already. Any thread.
    void end(Item answer) noexcept;

    /// After wait() has returned true.
    Item& answer() { return mAnswer; }

private:
    std::mutex mMutex; // guards all below; the answer does not change once it is there
    std::condition_variable mEnded;
    bool mHasEnded = false;
    Item mAnswer{STATUS_ANSWER};
};

} // namespace StatusC

#endif
