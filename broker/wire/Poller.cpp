#include "broker/wire/Poller.h"

#include <cerrno>
#include <limits>
#include <system_error>

Poller::Poller() : mPoll(epoll_create1(EPOLL_CLOEXEC))
{
    if (!mPoll.isOpen())
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

void Poller::add(int descriptor, uint32_t what, Pollable* owner)
{
    control(EPOLL_CTL_ADD, descriptor, what, owner);
}

void Poller::change(int descriptor, uint32_t what, Pollable* owner)
{
    control(EPOLL_CTL_MOD, descriptor, what, owner);
}

void Poller::remove(int descriptor)
{
    epoll_event ignored{};
    epoll_ctl(mPoll.number(), EPOLL_CTL_DEL, descriptor, &ignored);
}

std::size_t Poller::wait(std::chrono::microseconds limit)
{
    using std::chrono::milliseconds;
    constexpr milliseconds longest{std::numeric_limits<int>::max()};
    const int timeout =
        limit.count() < 0
            ? -1
            : static_cast<int>(std::min(std::chrono::ceil<milliseconds>(limit), longest).count());
    const int count = epoll_wait(mPoll.number(), mEvents.data(), static_cast<int>(mEvents.size()), timeout);
    if (count < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "epoll_wait");
    mLooks += count < 0 ? 0 : 1;
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

void Poller::control(int operation, int descriptor, uint32_t what, Pollable* owner)
{
    epoll_event event{};
    event.events = what;
    event.data.ptr = owner;
    if (epoll_ctl(mPoll.number(), operation, descriptor, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}
