#ifndef STATUSMANAGER_STATUSMANAGERSTUB_H
#define STATUSMANAGER_STATUSMANAGERSTUB_H

#include "statusmanager/StatusManager.h"

// Hiding the base's overloads is this class's nature, see below.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// The inert manager, for where no broker is wanted: it talks to nobody and delivers nothing. Its operations
/// only trace, on the caller's thread, and return a neutral result.
///
/// It is not a complete null object, and is to stay so: ten of the base's operations are not overridden but
/// hidden by operations of the same name with by-value parameters. Through a StatusManager pointer, as
/// getInstance() returns it, those ten and getTimerElapsedSeconds() and both resetStatus() reach the base's
/// local stores; through a StatusManagerStub they are inert as well.
class OV_EXPORT StatusManagerStub : public StatusManager
{
public:
    StatusManagerStub();

    void updateSystemTime(uint32_t seconds) override;
    StatusMap getClientInfo() override;
    void startTimer(std::string name) override;
    void stopTimer(std::string name) override;
    void resetTimer(std::string name) override;
    void restartTimer(std::string name) override;
    void setCounterValue(std::string name, uint32_t value) override;
    void registerListener(IStatusUpdateListener* listener, Orvane::EventDispatcher* dispatcher) override;
    void unregisterListener(IStatusUpdateListener* listener) override;
    void registerForStatus(IStatusUpdateListener* listener, std::string key) override;
    void registerForStatus(IStatusUpdateListener* listener, StatusKeys keys) override;
    void postStatus(std::string key, std::string value) override;
    void postStatus(StatusMap updates) override;
    void registerForEvent(IStatusUpdateListener* listener, std::string name) override;
    void registerForEvent(IStatusUpdateListener* listener, EventKeys names) override;
    void postEvent(std::string name, std::string value, uint32_t delay) override;
    /// True at once.
    bool sync(int timeoutMs) override;

    ~StatusManagerStub() override;

    /// @{
    /// Inert. A new operation, not an override: the parameters are taken by value.
    virtual std::string getClientInfoValue(std::string key);
    virtual StatusMap getClientInfoValues(StatusKeys keys);
    virtual uint64_t getTimerElapsed(std::string name);
    virtual uint64_t getTimerLastStarted(std::string name);
    virtual uint32_t getCounterValue(std::string name);
    virtual uint32_t incrementCounter(std::string name);
    virtual void unregisterForStatus(IStatusUpdateListener* listener, std::string key);
    virtual void unregisterForStatus(IStatusUpdateListener* listener, StatusKeys keys);
    virtual void unregisterForEvent(IStatusUpdateListener* listener, std::string name);
    virtual void unregisterForEvent(IStatusUpdateListener* listener, EventKeys names);
    /// @}
};

#pragma GCC diagnostic pop

#endif
