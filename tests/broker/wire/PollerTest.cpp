#include "broker/wire/Poller.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/eventfd.h>
#include <vector>

namespace
{

struct Readable : Pollable
{
    Readable() : Pollable(Kind::Interrupt) {}
    Descriptor descriptor{eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)};
};

std::size_t reported(Poller& poller)
{
    return poller.wait(std::chrono::microseconds(0));
}

} // namespace

TEST(PollerTest, reportsAsManyAtATimeAsItIsToldTo)
{
    constexpr std::size_t many = 1000;
    Poller poller;
    std::vector<Readable> readable(many);
    for (Readable& each : readable)
        poller.add(each.descriptor.number(), EPOLLIN, &each);
    EXPECT_LT(reported(poller), many);
    poller.reserve(many);
    ASSERT_EQ(reported(poller), many);
    std::set<Pollable*> owners;
    for (std::size_t index = 0; index < many; ++index)
        owners.insert(poller.event(index).owner);
    EXPECT_EQ(owners.size(), many);
    poller.reserve(1);
    EXPECT_EQ(reported(poller), many);
}
