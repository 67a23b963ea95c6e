#ifndef STATUSCTL_DEVICE_DEVICE_H
#define STATUSCTL_DEVICE_DEVICE_H

#include <chrono>
#include <string>

#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"
#include "statusctl/device/Deadline.h"
#include "statusctl/device/Journal.h"
#include "statusmanager/StatusManager.h"

/// A name, a value or a message that cannot be sent, with the reason.
class Unsendable : public Failure
{
public:
    explicit Unsendable(const std::string& reason) : Failure(ExitCode::Failed, reason) {}
};

/// The device as the commands see it: the library's manager, with a deadline for each call that waits. Throws
/// failures that the library only logs.
class Device
{
public:
    enum class WithoutBroker
    {
        Fail,
        Wait, ///< until -t is over, or for ever without -t
    };

    /// Connects. Ends the process at the deadline.
    /// @throws Failure if no broker listens
    explicit Device(const Settings& settings, WithoutBroker without = WithoutBroker::Fail);

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    std::chrono::milliseconds requestTimeout() const { return mSettings.requestTimeout(); }

    /// The start of the time that -t limits.
    std::chrono::steady_clock::time_point begin() const { return mBegin; }

    /// @throws Failure if no broker listens
    static void checkReachable();

    /// For calls that only queue a message.
    StatusManager& manager() { return *mManager; }

    /// Returns the result of a call that waits for the broker. Ends the process at the deadline.
    /// @throws Failure on a bad reply
    template <typename Call>
    auto ask(Call call)
    {
        const Deadline deadline(mSettings.requestTimeout(), [this] { leave(); });
        auto result = call(*mManager);
        throwFailure();
        return result;
    }

    /// The values of the keys that exist.
    StatusMap values(const StatusKeys& keys);

    // ---- Posts. Some of many posts wait until the broker has taken all before: see confirm().

    /// Queues a post of the values, in several messages if the transport cannot take them in one.
    /// @throws Unsendable
    void post(const StatusMap& values);
    void postEvent(const std::string& name, const std::string& value);
    void reset(const StatusKeys& keys);
    void setCounter(const std::string& name, uint32_t value);

    /// Returns when the broker has taken all posts so far.
    void confirm();

    /// Gives the posts so far time to leave: returns when the broker has taken them, after a second at the
    /// latest, and does not tell. After a wait in vain, nothing can be asked any more.
    void leaveTime();

    /// As StatusManager::unregisterListener().
    void unregister(IStatusUpdateListener* listener);

private:
    void waitForBroker() const;
    std::chrono::milliseconds timeToConnect() const;
    void countPost();
    void throwFailure();
    [[noreturn]] void leave() const;

    const Settings& mSettings;
    const std::chrono::steady_clock::time_point mBegin = std::chrono::steady_clock::now();
    Journal& mJournal = Journal::get();
    StatusManager* mManager = nullptr;
    unsigned mUnconfirmed = 0; // messages that were posted since the last confirm()
};

#endif
