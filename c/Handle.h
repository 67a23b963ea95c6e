#ifndef C_HANDLE_H
#define C_HANDLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "c/Inbox.h"
#include "c/Listener.h"
#include "c/Process.h"
#include "c/Question.h"
#include "common/EventAgent.h"
#include "statusmanager/StatusManager.h"

namespace StatusC
{

/// An open status: what status_t stands for. Any thread. Operations throw Failure, std::bad_alloc or
/// std::system_error.
class Handle : public std::enable_shared_from_this<Handle>
{
public:
    explicit Handle(StatusManager& manager);

    Inbox& inbox() { return *mInbox; }

    /// Ends everything; see status_close(). Once.
    void close() noexcept;

    using Action = std::function<void(StatusManager&)>;

    /// Runs `action` on the manager's thread, `delayMs` later. `document` is the message that it will send.
    void post(const std::string& document, Action action, uint32_t delayMs = 0);

    /// Asks, and waits at most `timeoutMs`. @returns a successful answer
    Item ask(Question question, int timeoutMs);
    /// Asks; the answer comes to the inbox.
    void askLater(Question question, uint64_t tag);

    void subscribe(const StatusKeys& keys);
    void unsubscribe(const StatusKeys& keys);
    void subscribeEvents(const EventKeys& names);
    void unsubscribeEvents(const EventKeys& names);

private:
    using Waiting = std::list<std::shared_ptr<WaitingQuestion>>;
    class Wait;

    Item answerTo(const Question& question) noexcept;
    void tellLoss(const Question& question, Item& answer) noexcept;
    Item firstValues(Inbox::Ticket ticket, const StatusKeys& keys) noexcept;
    void postWhileOpen(const StatusKeys& names, Action action);
    void postTask(std::size_t bytes, Action action, uint32_t delayMs = 0);
    Orvane::EventThread& managersThread() const;

    StatusManager& mManager;
    Process& mProcess;
    const std::shared_ptr<Inbox> mInbox;
    const std::shared_ptr<Listener> mListener;
    Orvane::SmartPtr<Orvane::EventAgent> mLeave; // made early, because close() must not need memory
    std::atomic<uint64_t> mLossesTold;
    // Held by each change of the subscriptions, so that the inbox and the manager get the changes in the same
    // order.
    std::mutex mSubscribing;

    std::mutex mMutex; // guards all below
    Waiting mWaiting;
    bool mClosed = false;
};

} // namespace StatusC

#endif
