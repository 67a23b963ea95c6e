// The notice of a dispatcher's end.

#include <gtest/gtest.h>
#include <memory>

#include "common/EventThread.h"
#include "common/TrackedNew.h"
#include "statusmanager/helpers/EndNotice.h"
#include "tests/support/Wait.h"

namespace
{

using status::EndNotice;

class Notice : public testing::Test
{
protected:
    std::shared_ptr<void> note()
    {
        return {&ended, [](Gate* gate) { gate->open(); }};
    }

    Gate ended;
    Orvane::EventThread thread{"thread", 0};
};

class Opener : public Orvane::AsyncEventAgent
{
public:
    explicit Opener(Gate& gate) : mGate(gate) {}
    void deliver() override { mGate.open(); }
    void* getDeliveryTarget() override { return &mGate; }

private:
    Gate& mGate;
};

} // namespace

TEST_F(Notice, comesWhenTheThreadStops)
{
    EndNotice::post(thread, this, note());
    EXPECT_FALSE(ended.isOpen());
    thread.stop();
    EXPECT_TRUE(ended.isOpen());
}

TEST_F(Notice, comesWhenItsOwnerRemovesIt)
{
    EndNotice::post(thread, this, note());
    thread.removeAgentsByReceiver(this);
    EXPECT_TRUE(ended.isOpen());
}

TEST_F(Notice, comesAtOnceFromAThreadThatHasStopped)
{
    thread.stop();
    EndNotice::post(thread, this, note());
    EXPECT_TRUE(ended.isOpen());
}

TEST_F(Notice, waitsOnWhenItsTimeHasCome)
{
    constexpr uint32_t delayMs = 1;
    Gate later;
    EndNotice::post(thread, this, note(), delayMs);
    thread.postDelayed(OV_NEW Opener(later), delayMs + 1);
    EXPECT_TRUE(later.wait()); // queued behind the notice, which is due by then
    EXPECT_FALSE(ended.isOpen());
    thread.stop();
    EXPECT_TRUE(ended.isOpen());
}
