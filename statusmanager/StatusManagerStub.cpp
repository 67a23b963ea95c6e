#include "statusmanager/StatusManagerStub.h"

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

StatusManagerStub::StatusManagerStub()
{
    OV_TRACE(6);
}

StatusManagerStub::~StatusManagerStub()
{
    {
        OV_TRACE(6);
    }
    mThread.stop(); // the thread may be in an operation of this class
}

void StatusManagerStub::updateSystemTime(uint32_t)
{
    OV_TRACE(7);
}

StatusMap StatusManagerStub::getClientInfo()
{
    OV_TRACE(7);
    return StatusMap();
}

void StatusManagerStub::startTimer(std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::stopTimer(std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::resetTimer(std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::restartTimer(std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::setCounterValue(std::string, uint32_t)
{
    OV_TRACE(7);
}

void StatusManagerStub::registerListener(IStatusUpdateListener*, Orvane::EventDispatcher*)
{
    OV_TRACE(7);
}

void StatusManagerStub::unregisterListener(IStatusUpdateListener*)
{
    OV_TRACE(7);
}

void StatusManagerStub::registerForStatus(IStatusUpdateListener*, std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::registerForStatus(IStatusUpdateListener*, StatusKeys)
{
    OV_TRACE(7);
}

void StatusManagerStub::postStatus(std::string, std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::postStatus(StatusMap)
{
    OV_TRACE(7);
}

void StatusManagerStub::registerForEvent(IStatusUpdateListener*, std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::registerForEvent(IStatusUpdateListener*, EventKeys)
{
    OV_TRACE(7);
}

void StatusManagerStub::postEvent(std::string, std::string, uint32_t)
{
    OV_TRACE(7);
}

bool StatusManagerStub::sync(int)
{
    OV_TRACE(7);
    return true;
}

// The by-value operations, which callers reach only through a StatusManagerStub.

std::string StatusManagerStub::getClientInfoValue(std::string)
{
    OV_TRACE(7);
    return std::string();
}

StatusMap StatusManagerStub::getClientInfoValues(StatusKeys)
{
    OV_TRACE(7);
    return StatusMap();
}

uint64_t StatusManagerStub::getTimerElapsed(std::string)
{
    OV_TRACE(7);
    return 0;
}

uint64_t StatusManagerStub::getTimerLastStarted(std::string)
{
    OV_TRACE(7);
    return 0;
}

uint32_t StatusManagerStub::getCounterValue(std::string)
{
    OV_TRACE(7);
    return 0;
}

uint32_t StatusManagerStub::incrementCounter(std::string)
{
    OV_TRACE(7);
    return 0;
}

void StatusManagerStub::unregisterForStatus(IStatusUpdateListener*, std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::unregisterForStatus(IStatusUpdateListener*, StatusKeys)
{
    OV_TRACE(7);
}

void StatusManagerStub::unregisterForEvent(IStatusUpdateListener*, std::string)
{
    OV_TRACE(7);
}

void StatusManagerStub::unregisterForEvent(IStatusUpdateListener*, EventKeys)
{
    OV_TRACE(7);
}
