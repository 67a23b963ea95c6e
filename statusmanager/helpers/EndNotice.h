#ifndef STATUSMANAGER_HELPERS_ENDNOTICE_H
#define STATUSMANAGER_HELPERS_ENDNOTICE_H

#include <cstdint>
#include <limits>
#include <memory>

#include "common/EventAgent.h"

namespace status
{

/// Notices that a dispatcher stops, which dispatchers report to nobody.
///
/// It waits among the delayed agents, due later than all others, and joins them anew when its time has come.
/// A dispatcher that stops lets go of its agents when its thread has ended. So this agent's end is the end of
/// the dispatcher's thread; and what it holds lives longer than any agent that the thread has begun.
class EndNotice : public Orvane::AsyncEventAgent
{
public:
    /// 49 days.
    static constexpr uint32_t longestDelayMs = std::numeric_limits<uint32_t>::max();

    /// Lets go of `held`, whose deleter is so told: when the dispatcher's thread has ended, or when
    /// `removeAgentsByReceiver(owner)` is called for the dispatcher; at once, if the dispatcher has stopped,
    /// or if there is no memory, which is thrown.
    static void post(Orvane::IEventDispatcher& dispatcher, void* owner, std::shared_ptr<void> held,
                     uint32_t delayMs = longestDelayMs);

    void deliver() override;
    void* getDeliveryTarget() override;

private:
    EndNotice(Orvane::IEventDispatcher& dispatcher, void* owner, std::shared_ptr<void> held,
              uint32_t delayMs);

    Orvane::IEventDispatcher& mDispatcher;
    void* const mOwner;
    const std::shared_ptr<void> mHeld;
    const uint32_t mDelayMs;
};

} // namespace status

#endif
