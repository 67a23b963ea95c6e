#include "statusmanager/helpers/EndNotice.h"

#include <utility>

#include "common/TrackedNew.h"

namespace status
{

void EndNotice::post(Orvane::IEventDispatcher& dispatcher, void* owner, std::shared_ptr<void> held,
                     uint32_t delayMs)
{
    dispatcher.postDelayed(OV_NEW EndNotice(dispatcher, owner, std::move(held), delayMs), delayMs);
}

EndNotice::EndNotice(Orvane::IEventDispatcher& dispatcher, void* owner, std::shared_ptr<void> held,
                     uint32_t delayMs)
    : mDispatcher(dispatcher), mOwner(owner), mHeld(std::move(held)), mDelayMs(delayMs)
{
}

void EndNotice::deliver()
{
    mDispatcher.postDelayed(this, mDelayMs);
}

void* EndNotice::getDeliveryTarget()
{
    return mOwner;
}

} // namespace status
