#include "c/Handle.h"

#include <chrono>
#include <new>
#include <utility>

#include "c/Arguments.h"
#include "c/Failure.h"
#include "c/Task.h"
#include "statusmanager/helpers/ManagerAccess.h"

namespace StatusC
{

using status::Deadline;
using status::ManagerAccess;

namespace
{

using Lock = std::lock_guard<std::mutex>;

Deadline deadlineOf(int timeoutMs)
{
    return status::deadlineIn(timeoutMs < 0 ? std::chrono::milliseconds::max()
                                            : std::chrono::milliseconds(timeoutMs));
}

std::size_t bytesOf(const StatusKeys& names)
{
    std::size_t bytes = 0;
    for (const std::string& name : names)
        bytes += name.size();
    return bytes;
}

} // namespace

// A question that a thread waits for, so that close() can end it.
class Handle::Wait
{
public:
    Wait(Handle& handle, const std::shared_ptr<WaitingQuestion>& question)
        : mHandle(handle), mQuestion{question}
    {
        const Lock lock(mHandle.mMutex);
        if (mHandle.mClosed)
            throw Failure{STATUS_ECLOSED};
        mHandle.mWaiting.splice(mHandle.mWaiting.begin(), mQuestion);
        mPlace = mHandle.mWaiting.begin();
    }

    ~Wait()
    {
        const Lock lock(mHandle.mMutex);
        mQuestion.splice(mQuestion.begin(), mHandle.mWaiting, mPlace);
    }

    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

private:
    Handle& mHandle;
    Waiting mQuestion; // a list of one; empty while the handle has it
    Waiting::iterator mPlace;
};

Handle::Handle(StatusManager& manager)
    : mManager(manager), mProcess(Process::instance()), mInbox(std::make_shared<Inbox>()),
      mListener(std::make_shared<Listener>(mInbox)),
      mLeave(makeTask(&manager, [&manager, listener = mListener, share = mProcess.allowance().take(0)]
                      { ManagerAccess::removeListener(manager, listener.get()); })),
      mLossesTold(mProcess.losses(manager))
{
}

void Handle::close() noexcept
{
    mInbox->close();
    try
    {
        managersThread().post(mLeave.get());
    }
    catch (const std::bad_alloc&)
    {
        mLeave->AddRef(); // for ever: the listener stays registered, but passes nothing on
    }
    mProcess.asker().removeAgentsByReceiver(this);
    const Lock lock(mMutex);
    mClosed = true;
    for (const auto& question : mWaiting)
        question->end(Item{STATUS_ANSWER, STATUS_ECLOSED});
}

// ----------------------------------------------------------------------------------------------------- posts

void Handle::post(const std::string& document, Action action, uint32_t delayMs)
{
    checkSendable(document);
    postTask(
        document.size(),
        [&process = mProcess, action = std::move(action)](StatusManager& manager)
        {
            try
            {
                action(manager);
            }
            catch (const std::bad_alloc&)
            {
                process.countLoss();
                throw; // to be logged
            }
        },
        delayMs);
}

// ------------------------------------------------------------------------------------------------- questions

Item Handle::ask(Question question, int timeoutMs)
{
    const Deadline deadline = deadlineOf(timeoutMs);
    if (timeoutMs == 0)
        throw Failure{STATUS_ETIMEOUT};
    const auto waiting = std::make_shared<WaitingQuestion>();
    const Wait wait(*this, waiting);
    const auto task = makeTask(this,
                               [self = shared_from_this(), waiting, question]
                               {
                                   if (!self->mInbox->isClosed())
                                       waiting->end(self->answerTo(question));
                               });
    mProcess.asker().post(task.get());
    if (!waiting->wait(deadline))
    {
        mProcess.asker().removeAgent(task.get());
        waiting->end(Item{STATUS_ANSWER, STATUS_ETIMEOUT});
    }
    tellLoss(question, waiting->answer());
    if (waiting->answer().result != STATUS_OK)
        throw Failure{waiting->answer().result};
    return std::move(waiting->answer());
}

void Handle::askLater(Question question, uint64_t tag)
{
    mInbox->expectAnswer();
    try
    {
        const auto task =
            makeTask(this,
                     [self = shared_from_this(), share = mProcess.allowance().take(bytesOf(question.names)),
                      question = std::move(question), tag, answer = Items{Item{STATUS_ANSWER}}]() mutable
                     {
                         if (self->mInbox->isClosed())
                             return;
                         answer.front() = self->answerTo(question);
                         answer.front().tag = tag;
                         self->tellLoss(question, answer.front());
                         self->mInbox->pushAnswer(answer);
                     });
        mProcess.asker().post(task.get());
    }
    catch (...)
    {
        mInbox->expectNoAnswer();
        throw;
    }
}

Item Handle::answerTo(const Question& question) noexcept
{
    return StatusC::answerTo(question, mManager, mProcess);
}

void Handle::tellLoss(const Question& question, Item& answer) noexcept
{
    if (question.kind != STATUS_ASK_SYNC || answer.result != STATUS_OK)
        return;
    const uint64_t losses = mProcess.losses(mManager);
    uint64_t told = mLossesTold;
    while (told < losses && !mLossesTold.compare_exchange_weak(told, losses))
        continue;
    if (told < losses)
        answer.result = STATUS_ELOST;
}

// --------------------------------------------------------------------------------------------- subscriptions

void Handle::subscribe(const StatusKeys& keys)
{
    const Lock lock(mSubscribing);
    mInbox->expectAnswer();
    Inbox::Ticket ticket = 0;
    try
    {
        ticket = mInbox->subscribe(keys);
        const auto task =
            makeTask(&mManager,
                     [self = shared_from_this(), share = mProcess.allowance().take(bytesOf(keys)), ticket,
                      keys, synced = Items{Item{STATUS_SYNCED}}]() mutable
                     {
                         if (self->mInbox->isClosed())
                             return;
                         synced.front() = self->firstValues(ticket, keys);
                         self->mInbox->pushAnswer(synced);
                     });
        managersThread().post(task.get());
    }
    catch (...)
    {
        mInbox->cancel(ticket, keys);
        mInbox->expectNoAnswer();
        throw;
    }
}

// Manager's thread.
Item Handle::firstValues(Inbox::Ticket ticket, const StatusKeys& keys) noexcept
{
    try
    {
        const StatusKeys opened = mInbox->open(ticket, keys);
        const bool isAnswered =
            opened.empty() || mListener->subscribe(mManager, opened) || mProcess.isAnswered(mManager);
        return Item{STATUS_SYNCED, isAnswered ? STATUS_OK : STATUS_EUNUSABLE};
    }
    catch (const std::bad_alloc&)
    {
        mInbox->miss(); // keys that were subscribed before may have no subscription any more
        return Item{STATUS_SYNCED, STATUS_ENOMEM};
    }
}

void Handle::unsubscribe(const StatusKeys& keys)
{
    const Lock lock(mSubscribing);
    postWhileOpen(keys, [listener = mListener, keys](StatusManager& manager)
                  { listener->unsubscribe(manager, keys); });
    mInbox->unsubscribe(keys);
}

void Handle::subscribeEvents(const EventKeys& names)
{
    const Lock lock(mSubscribing);
    const EventKeys added = mInbox->subscribeEvents(names);
    try
    {
        postWhileOpen(names, [listener = mListener, names](StatusManager& manager)
                      { listener->subscribeEvents(manager, names); });
    }
    catch (...)
    {
        mInbox->unsubscribeEvents(added);
        throw;
    }
}

void Handle::unsubscribeEvents(const EventKeys& names)
{
    const Lock lock(mSubscribing);
    postWhileOpen(names, [listener = mListener, names](StatusManager& manager)
                  { listener->unsubscribeEvents(manager, names); });
    mInbox->unsubscribeEvents(names);
}

// -------------------------------------------------------------------------------------- the manager's thread

// After close() the listener is not registered any more.
void Handle::postWhileOpen(const StatusKeys& names, Action action)
{
    postTask(bytesOf(names),
             [inbox = mInbox, action = std::move(action)](StatusManager& manager)
             {
                 if (inbox->isClosed())
                     return;
                 try
                 {
                     action(manager);
                 }
                 catch (const std::bad_alloc&)
                 {
                     inbox->miss();
                     throw; // to be logged
                 }
             });
}

void Handle::postTask(std::size_t bytes, Action action, uint32_t delayMs)
{
    const auto task = makeTask(&mManager, [&manager = mManager, action = std::move(action),
                                           share = mProcess.allowance().take(bytes)] { action(manager); });
    if (delayMs == 0)
        managersThread().post(task.get());
    else
        managersThread().postDelayed(task.get(), delayMs);
}

Orvane::EventThread& Handle::managersThread() const
{
    return ManagerAccess::threadOf(mManager);
}

} // namespace StatusC
