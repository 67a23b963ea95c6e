#include "c/Question.h"

#include <new>
#include <utility>

namespace StatusC
{

namespace
{

// Without a broker that answers, the manager's queries return at once what they also return for unknown
// names. So such an answer is confirmed by another question.
class Asking
{
public:
    Asking(const Question& question, StatusManager& manager, Process& process)
        : mQuestion(question), mManager(manager), mProcess(process)
    {
    }

    Item answer()
    {
        ask();
        return std::move(mAnswer);
    }

private:
    void ask()
    {
        switch (mQuestion.kind)
        {
        case STATUS_ASK_VALUE:
            return askForValue();
        case STATUS_ASK_ALL:
            return setValues(mManager.getClientInfo());
        case Question::values:
            return setValues(mManager.getClientInfoValues(mQuestion.names));
        case STATUS_ASK_TIMER_ELAPSED:
            return setNumber(mManager.getTimerElapsed(name()));
        case STATUS_ASK_TIMER_STARTED:
            return setNumber(mManager.getTimerLastStarted(name()));
        case STATUS_ASK_COUNTER:
            return setNumber(mManager.getCounterValue(name()));
        case STATUS_ASK_INCREMENT:
            return setNumber(mManager.incrementCounter(name()));
        default:
            return confirm();
        }
    }

    // getClientInfoValue() would not distinguish an unknown key from a reset one.
    void askForValue()
    {
        const StatusMap values = mManager.getClientInfoValues(mQuestion.names);
        mAnswer.key = name();
        const auto found = values.find(name());
        if (found != values.end())
        {
            mAnswer.value = found->second;
            return;
        }
        confirm();
        if (mAnswer.result == STATUS_OK)
            mAnswer.result = STATUS_ENOENT;
    }

    void setValues(StatusMap values)
    {
        mAnswer.values = std::move(values);
        if (mAnswer.values.empty())
            confirm();
    }

    void setNumber(uint64_t number)
    {
        mAnswer.key = name();
        mAnswer.number = number;
        if (number == 0)
            confirm();
    }

    void confirm()
    {
        if (!mProcess.isAnswered(mManager))
            mAnswer.result = STATUS_EUNUSABLE;
    }

    const std::string& name() const { return mQuestion.names.front(); }

    const Question& mQuestion;
    StatusManager& mManager;
    Process& mProcess;
    Item mAnswer{STATUS_ANSWER};
};

} // namespace

Item answerTo(const Question& question, StatusManager& manager, Process& process) noexcept
{
    try
    {
        return Asking(question, manager, process).answer();
    }
    catch (const std::bad_alloc&)
    {
        return Item{STATUS_ANSWER, STATUS_ENOMEM};
    }
}

bool WaitingQuestion::wait(status::Deadline deadline)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mEnded.wait_until(lock, deadline, [this] { return mHasEnded; });
}

void WaitingQuestion::end(Item answer) noexcept
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (std::exchange(mHasEnded, true))
        return;
    mAnswer = std::move(answer);
    mEnded.notify_all();
}

} // namespace StatusC
