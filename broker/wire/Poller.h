#ifndef BROKER_WIRE_POLLER_H
#define BROKER_WIRE_POLLER_H

#include <chrono>
#include <cstdint>
#include <sys/epoll.h>
#include <vector>

#include "daemon/Descriptor.h"

/// The owner of a polled descriptor. The kind says which class it is.
class Pollable
{
public:
    enum class Kind
    {
        Interrupt,
        Listener,
        Connection,
    };

    explicit Pollable(Kind kind) : mPollableKind(kind) {}
    Kind pollableKind() const { return mPollableKind; }

private:
    Kind mPollableKind;
};

/// Reports which of many descriptors can be read or written. Level-triggered: a condition that is not dealt
/// with is reported again.
class Poller
{
public:
    /// The bits of epoll: EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR.
    struct Event
    {
        Pollable* owner;
        uint32_t what;
    };

    /// @throws std::system_error if the system has no room for another epoll instance
    Poller();

    /// @param owner returned with each event
    /// @throws std::system_error
    void add(int descriptor, uint32_t what, Pollable* owner);
    void change(int descriptor, uint32_t what, Pollable* owner);
    void remove(int descriptor);

    /// Lets wait() report at least this many events at a time.
    void reserve(std::size_t events)
    {
        if (events > mEvents.size())
            mEvents.resize(2 * events);
    }

    /// Waits at most `limit`, rounded up to whole milliseconds; negative: without limit. Returns the number
    /// of events.
    std::size_t wait(std::chrono::microseconds limit);

    /// How often wait() has looked at the descriptors.
    uint64_t looks() const { return mLooks; }

    Event event(std::size_t index) const
    {
        return {static_cast<Pollable*>(mEvents[index].data.ptr), mEvents[index].events};
    }

private:
    void control(int operation, int descriptor, uint32_t what, Pollable* owner);

    Descriptor mPoll;
    uint64_t mLooks = 0;
    std::vector<epoll_event> mEvents = std::vector<epoll_event>(128);
};

#endif
