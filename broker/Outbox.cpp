#include "broker/Outbox.h"

#include <algorithm>

namespace
{

// Changes are committed in batches: at most this many bytes of notifications wait for a commit.
constexpr std::size_t batchBytes = std::size_t{256} * 1024;

// So many bytes of answers wait for a commit. They leave together, and delay other work by as much.
constexpr std::size_t mostAnswerBytes = std::size_t{1024} * 1024;

} // namespace

Outbox::Outbox(const Options& options, DeviceState& state, NotifyPort& notify, RequestPort& requests)
    : mState(state), mNotify(notify), mRequests(requests)
{
    if (options.stateFile.empty())
        return;
    mStateFile.emplace(
        options.stateFile, options.stateSync, options.stateKeys, [this] { return mState.everything(); },
        options.limits);
    mState.restore(mStateFile->load());
    // Shows the next broker of this boot that there was an earlier one, even if no value changes.
    if (!mStateFile->isOfThisBoot())
        mStateFile->commit({});
}

void Outbox::publish(const std::string& notification, uint64_t events)
{
    if (!mStateFile)
        return mNotify.publish(notification, mState.revision(), events);
    mNotifications.push_back({notification, mState.revision(), events});
    mBytes += notification.size();
    if (mBytes >= batchBytes)
        settle();
}

void Outbox::reply(RequestConnection& connection, Reply reply)
{
    if (!mStateFile)
        return mRequests.reply(connection, std::move(reply));
    mAnswerBytes += reply.heldBytes() + Reply::pieceBytes;
    mAnswers.push_back({&connection, std::move(reply)});
}

bool Outbox::isFull() const
{
    return mAnswerBytes >= mostAnswerBytes;
}

void Outbox::settle()
{
    if (!mStateFile)
        return;
    const SavedState changes = mState.takeChanges();
    if (!changes.empty())
    {
        mStateFile->commit(changes);
        mTimes.tried(Clock::now());
    }
    for (const Notification& notification : mNotifications)
        mNotify.publish(notification.text, notification.revision, notification.events);
    mNotifications.clear();
    mBytes = 0;
    // One by one: replying may close a connection, or bring the next question.
    mAnswerBytes = 0;
    while (!mAnswers.empty())
    {
        Answer answer = std::move(mAnswers.front());
        mAnswers.pop_front();
        mRequests.reply(*answer.connection, std::move(answer.reply));
    }
}

void Outbox::forget(RequestConnection& connection)
{
    mAnswers.erase(std::remove_if(mAnswers.begin(), mAnswers.end(),
                                  [&](const Answer& answer) { return answer.connection == &connection; }),
                   mAnswers.end());
}

TimePoint Outbox::due() const
{
    return mStateFile ? mTimes.due(mState.hasRunningTimers(), mStateFile->isBehind()) : TimePoint::max();
}

void Outbox::doWhatIsDue(TimePoint now)
{
    mStateFile->commit({});
    mTimes.triedAsDue(now);
}

void Outbox::finish()
{
    settle();
    if (!mStateFile)
        return;
    mStateFile->remember(mState.laterDetails());
    mStateFile->commitLast();
}
