#ifndef C_INBOX_H
#define C_INBOX_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "c/Item.h"

namespace StatusC
{

/// The bounded queue of one open status, with the descriptor that is readable while it has something. It also
/// knows what is subscribed, so that nothing comes after the end of a subscription.
///
/// Any thread. Operations that cannot allocate do not throw; others throw Failure or std::bad_alloc, and have
/// then changed nothing.
class Inbox
{
public:
    /// Identifies one call of subscribe().
    using Ticket = uint64_t;

    /// @throws Failure(STATUS_ESYSTEM) without a descriptor
    Inbox();
    ~Inbox();

    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    /// Drops everything, for ever.
    void close() noexcept;
    bool isClosed() noexcept;

    int descriptor();

    /// Moves the next item to the end of `taken`. Returns false if there is none.
    /// @throws std::bad_alloc once, if an update was lost for want of memory
    bool take(Items& taken);
    /// Puts back an item that was taken, as the next one.
    void putBack(Items& taken) noexcept;

    uint64_t dropped() noexcept;

    // --------------------------------------------------------------------------------- questions and answers

    /// Counts an answer that will be pushed. @throws Failure(STATUS_EFULL)
    void expectAnswer();
    /// The answer will not be pushed.
    void expectNoAnswer() noexcept;
    /// Appends the one item of `answer`, an answer or the end of first values. If too many bytes of answers
    /// wait already, it comes without its values.
    void pushAnswer(Items& answer) noexcept;

    // ----------------------------------------------------------------------------------------- subscriptions

    /// Subscribes to the keys. Changes of new ones are ignored until open().
    Ticket subscribe(const StatusKeys& keys);
    /// Reverts subscribe().
    void cancel(Ticket ticket, const StatusKeys& keys) noexcept;
    /// From now on changes of these keys count. Leaves out keys that were unsubscribed after subscribe().
    StatusKeys open(Ticket ticket, const StatusKeys& keys);
    void unsubscribe(const StatusKeys& keys) noexcept;

    /// Returns the names that were not subscribed before.
    EventKeys subscribeEvents(const EventKeys& names);
    void unsubscribeEvents(const EventKeys& names) noexcept;

    // Updates. If there is no memory, take() reports it.
    void pushChange(const std::string& key, std::string value) noexcept;
    void pushEvent(std::string name, std::string value) noexcept;
    /// Updates may be lost for want of memory.
    void miss() noexcept;

private:
    struct Subscribed
    {
        Ticket since; // the first subscribe() after which there was no unsubscribe()
        bool isOpen = false;
        bool isWaiting = false;    // `latest` is valid
        Items::iterator latest{};  // the key's last change in the queue
        uint64_t syncedBefore = 0; // mSynced when the change came
    };
    using Keys = std::map<std::string, Subscribed>;

    void requireOpen() const;
    bool isFull() const;
    void pushUpdate(Items& update);
    void replaceLatest(Subscribed& subscribed, std::string& value) noexcept;
    void missNow() noexcept;
    void count(const Item& item, int sign) noexcept;
    template <class Matches>
    Items removeUpdates(Matches matches) noexcept;
    void adjustDescriptor() noexcept;

    std::mutex mMutex; // guards all below
    int mDescriptor;
    bool mIsReadable = false;
    bool mClosed = false;
    bool mHasMissed = false; // updates may be lost for want of memory
    Items mQueue;
    std::size_t mUpdates = 0; // changes and events in the queue
    std::size_t mUpdateBytes = 0;
    std::size_t mAnswerBytes = 0;
    std::size_t mExpected = 0; // answers that are expected, or wait in the queue
    uint64_t mSynced = 0;      // ends of first values that were ever in the queue
    uint64_t mDropped = 0;
    Ticket mLastTicket = 0;
    Keys mKeys;
    std::set<std::string> mEvents;
};

} // namespace StatusC

#endif
