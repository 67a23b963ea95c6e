#ifndef STATUSCTL_DEVICE_DEVICE_H
#define STATUSCTL_DEVICE_DEVICE_H

#include <chrono>
#include <string>

#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"
#include "statusctl/device/Deadline.h"
#include "statusctl/device/Journal.h"
#include "statusmanager/StatusManager.h"

/// The device as the commands see it: the library's manager, with a deadline for each call that waits, and
/// with failures told instead of logged.
class Device
{
public:
    enum class WithoutBroker
    {
        Fail,
        Wait, ///< for the time of -t, without it for ever
    };

    /// Connects.
    /// @throws Failure if no broker listens. Leaves the process at the deadline.
    explicit Device(const Settings& settings, WithoutBroker without = WithoutBroker::Fail);

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    std::chrono::milliseconds requestTimeout() const { return mSettings.requestTimeout(); }

    /// When the time of -t began to run.
    std::chrono::steady_clock::time_point begin() const { return mBegin; }

    /// @throws Failure if no broker listens
    static void checkReachable();

    /// For calls that only queue something.
    StatusManager& manager() { return *mManager; }

    /// The result of a call that waits for the broker. Leaves the process at the deadline.
    /// @throws Failure on a bad reply
    template <typename Call>
    auto ask(Call call)
    {
        const Deadline deadline(mSettings.requestTimeout(), [this] { leave(); });
        auto result = call(*mManager);
        throwFailure();
        return result;
    }

    /// The values of those keys that are known.
    StatusMap values(const StatusKeys& keys);

    /// Queues a post of the values: one, or several where the transport would not take one.
    /// @throws Failure if it takes none
    void post(const StatusMap& values);
    void postEvent(const std::string& name, const std::string& value);
    void reset(const StatusKeys& keys);
    void setCounter(const std::string& name, uint32_t value);

    /// Returns when the broker has taken all that was posted.
    void confirm();

    /// As StatusManager::unregisterListener().
    void unregister(IStatusUpdateListener* listener);

private:
    void waitForBroker() const;
    std::chrono::milliseconds timeToConnect() const;
    void throwFailure();
    [[noreturn]] void leave() const;

    const Settings& mSettings;
    const std::chrono::steady_clock::time_point mBegin = std::chrono::steady_clock::now();
    Journal& mJournal = Journal::get();
    StatusManager* mManager = nullptr;
};

#endif
