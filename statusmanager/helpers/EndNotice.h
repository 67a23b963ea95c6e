#ifndef STATUSMANAGER_HELPERS_ENDNOTICE_H
#define STATUSMANAGER_HELPERS_ENDNOTICE_H

#include <cstdint>
#include <limits>
#include <memory>

#include "common/EventAgent.h"

namespace status
{

/// Notices that a dispatcher stops, because dispatchers do not report it.
///
/// This agent waits among the delayed agents, due later than all others, and posts itself again when it is
/// due. A stopping dispatcher drops its agents after its thread has ended. So this agent is destroyed when
/// the dispatcher's thread has ended, and the held object outlives every agent that the thread has begun to
/// deliver.
class EndNotice : public Orvane::AsyncEventAgent
{
public:
    /// 49 days.
    static constexpr uint32_t longestDelayMs = std::numeric_limits<uint32_t>::max();

    /// Releases `held` when the dispatcher's thread has ended, or when `removeAgentsByReceiver(owner)` is
    /// called for the dispatcher. The deleter of `held` thereby notices the end. Releases it at once if the
    /// dispatcher has already stopped, or if memory runs out, which throws std::bad_alloc.
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
