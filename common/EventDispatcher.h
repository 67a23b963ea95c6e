#ifndef VESK_COMMON_EVENTDISPATCHER_H
#define VESK_COMMON_EVENTDISPATCHER_H

#include <memory>

#include "common/Export.h"
#include "common/IEventDispatcher.h"

namespace Orvane
{

/// A queue of agents and the loop that delivers them, one at a time and in order, on the one thread that runs
/// the loop. A derived class provides that thread; see EventThread.
class OV_EXPORT EventDispatcher : public IEventDispatcher
{
public:
    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    void sendAndWait(EventAgent* agent) override;
    void post(EventAgent* agent) override;
    void postDelayed(EventAgent* agent, uint32_t delayMs) override;
    void removeAgentsByReceiver(void* receiver) override;
    bool removeAgent(EventAgent* agent) override;
    std::size_t getPendingCount() override;
    const char* getName() override;
    bool isThreadCurrent() override;

    /// Drops what is still queued. The loop must have ended.
    ~EventDispatcher() override;

protected:
    /// @param name copied; any length.
    explicit EventDispatcher(const char* name);

    /// Delivers on the calling thread until requestStop(). Called once.
    void run();

    /// Makes run() return after the agent that it is delivering, and later sends be refused. Any thread.
    void requestStop();

    /// Drops all that waits, undelivered, and releases its senders. Any thread.
    void dropAll();

private:
    struct Queue;
    std::shared_ptr<Queue> mQueue; ///< Shared: a sender uses it even after the dispatcher is gone.
};

} // namespace Orvane

#endif
