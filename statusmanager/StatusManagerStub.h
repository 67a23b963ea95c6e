#ifndef STATUSMANAGER_STATUSMANAGERSTUB_H
#define STATUSMANAGER_STATUSMANAGERSTUB_H

#include "statusmanager/StatusManager.h"

// This class hides overloads of the base class on purpose; see below.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// The inert manager, for programs without a broker: it communicates with nothing and delivers nothing. Its
/// operations only trace, on the caller's thread, and return a neutral result.
///
/// It is deliberately not a complete null object. It does not override ten operations of the base class, but
/// hides them by operations of the same name with by-value parameters. Through a StatusManager pointer, as
/// getInstance() returns it, these ten, getTimerElapsedSeconds() and both resetStatus() use the base's local
/// stores. Through a StatusManagerStub the ten are inert too.
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
    /// Returns true at once.
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
