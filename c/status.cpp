// The functions of status.h. Each checks and copies its arguments, and turns exceptions into results.

#include "statusmanager/status.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <system_error>
#include <utility>

#include "c/Arguments.h"
#include "c/Blocks.h"
#include "c/Failure.h"
#include "c/Handles.h"
#include "c/Process.h"
#include "protocol/ClientDocuments.h"
#include "statusmanager/helpers/Instance.h"

namespace Key = BrokerProtocol::Key;

using namespace StatusC;

namespace
{

// A thread that is cancelled would leave locks behind, and an exception of the C library's would pass code
// that it must not pass.
class NotCancelled
{
public:
    NotCancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mBefore); }
    ~NotCancelled() { pthread_setcancelstate(mBefore, nullptr); }

    NotCancelled(const NotCancelled&) = delete;
    NotCancelled& operator=(const NotCancelled&) = delete;

private:
    int mBefore = PTHREAD_CANCEL_ENABLE;
};

template <class Action>
auto guarded(Action action) noexcept -> decltype(action())
{
    if (Process::isForked())
        return STATUS_EFORKED;
    const NotCancelled notCancelled;
    try
    {
        return action();
    }
    catch (const Failure& failure)
    {
        return failure.result;
    }
    catch (const std::bad_alloc&)
    {
        return STATUS_ENOMEM;
    }
    catch (...) // std::system_error: no thread
    {
        return STATUS_ESYSTEM;
    }
}

template <class Action>
auto with(const status_t* status, Action action) noexcept
{
    return guarded([&] { return action(*Handles::instance().find(status)); });
}

// Runs an action that returns nothing.
template <class Action>
int doWith(const status_t* status, Action action) noexcept
{
    return with(status,
                [&](Handle& handle)
                {
                    action(handle);
                    return int{STATUS_OK};
                });
}

template <class Block>
Block* required(Block* block)
{
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

status_t* opened(StatusManager& manager)
{
    const auto handle = std::make_shared<Handle>(manager);
    try
    {
        return Handles::instance().add(handle);
    }
    catch (...)
    {
        handle->close();
        throw;
    }
}

void postValues(Handle& handle, StatusMap values)
{
    const std::string document = BrokerProtocol::writeMap(Key::postStatus, values);
    handle.post(document,
                [values = std::move(values)](StatusManager& manager) { manager.postStatus(values); });
}

using TimerOperation = void (StatusManager::*)(std::string);

int postTimer(const status_t* status, const char* name, const char* key, TimerOperation operation) noexcept
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      std::string timer = nameIn(name);
                      handle.post(BrokerProtocol::writeText(key, timer),
                                  [=](StatusManager& manager) { (manager.*operation)(timer); });
                  });
}

// The message of a question, to be checked; null if it has always the same length.
const char* wordOf(int question)
{
    switch (question)
    {
    case STATUS_ASK_VALUE:
        return Key::getClientInfoValues;
    case STATUS_ASK_TIMER_ELAPSED:
        return Key::getTimerElapsed;
    case STATUS_ASK_TIMER_STARTED:
        return Key::getTimerLastStarted;
    case STATUS_ASK_COUNTER:
        return Key::getCounterValue;
    case STATUS_ASK_INCREMENT:
        return Key::incrementCounter;
    case STATUS_ASK_ALL:
    case STATUS_ASK_SYNC:
        return nullptr;
    default:
        refuse(STATUS_EINVAL);
    }
}

Question questionIn(int kind, const char* name)
{
    const char* const word = wordOf(kind);
    if (word == nullptr)
    {
        if (name != nullptr)
            refuse(STATUS_EINVAL);
        return Question{kind};
    }
    std::string text = nameIn(name);
    if (kind == STATUS_ASK_VALUE)
        return Question{kind, askable({std::move(text)})};
    checkSendable(BrokerProtocol::writeText(word, text));
    return Question{kind, {std::move(text)}};
}

Question questionIn(const char* const* keys, size_t count)
{
    return Question{Question::values, askable(namesIn(keys, count))};
}

int askForNumber(const status_t* status, int kind, const char* name, int timeout_ms,
                 uint64_t* number) noexcept
{
    return doWith(status, [&](Handle& handle)
                  { resultAt(number) = handle.ask(questionIn(kind, name), timeout_ms).number; });
}

} // namespace

// ------------------------------------------------------------------------------------------------- lifecycle

int status_open(int timeout_ms, status_t** status)
{
    return guarded(
        [&]
        {
            status_t*& result = resultAt(status);
            Process::claim();
            StatusManager* const manager = status::connectWithin(
                timeout_ms < 0 ? std::chrono::milliseconds::max() : std::chrono::milliseconds(timeout_ms));
            if (manager == nullptr)
                return int{STATUS_ETIMEOUT};
            result = opened(*manager);
            return int{STATUS_OK};
        });
}

int status_close(status_t* status)
{
    return guarded(
        [&]
        {
            Handles::instance().remove(status)->close();
            return int{STATUS_OK};
        });
}

// ----------------------------------------------------------------------------------------------------- posts

int status_post(status_t* status, const char* key, const char* value)
{
    return doWith(status, [&](Handle& handle) { postValues(handle, {{nameIn(key), valueIn(value)}}); });
}

int status_post_many(status_t* status, const status_pair_t* pairs, size_t count)
{
    return doWith(status, [&](Handle& handle) { postValues(handle, valuesIn(pairs, count)); });
}

int status_reset(status_t* status, const char* key)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      const StatusKeys keys{nameIn(key)};
                      handle.post(BrokerProtocol::writeList(Key::resetStatus, keys),
                                  [=](StatusManager& manager) { manager.resetStatus(keys); });
                  });
}

int status_post_event(status_t* status, const char* name, const char* value, uint32_t delay_ms)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      const std::string event = nameIn(name);
                      const std::string text = valueIn(value);
                      handle.post(
                          BrokerProtocol::writePostEvent(event, text),
                          [=](StatusManager& manager) { manager.postEvent(event, text, 0); }, delay_ms);
                  });
}

// ----------------------------------------------------------------------------------------- waiting questions

int status_get(status_t* status, const char* key, int timeout_ms, char** value)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      char*& result = resultAt(value);
                      const Item answer = handle.ask(questionIn(STATUS_ASK_VALUE, key), timeout_ms);
                      result = required(blockOf(answer.value));
                  });
}

int status_get_many(status_t* status, const char* const* keys, size_t count, int timeout_ms,
                    status_values_t** values)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      status_values_t*& result = resultAt(values);
                      const Item answer = handle.ask(questionIn(keys, count), timeout_ms);
                      result = required(blockOf(answer.values));
                  });
}

int status_get_all(status_t* status, int timeout_ms, status_values_t** values)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      status_values_t*& result = resultAt(values);
                      const Item answer = handle.ask(Question{STATUS_ASK_ALL}, timeout_ms);
                      result = required(blockOf(answer.values));
                  });
}

int status_sync(status_t* status, int timeout_ms)
{
    return doWith(status, [&](Handle& handle) { handle.ask(Question{STATUS_ASK_SYNC}, timeout_ms); });
}

// ------------------------------------------------------------------------------------------- other questions

int status_ask(status_t* status, int question, const char* name, uint64_t tag)
{
    return doWith(status, [&](Handle& handle) { handle.askLater(questionIn(question, name), tag); });
}

int status_ask_many(status_t* status, const char* const* keys, size_t count, uint64_t tag)
{
    return doWith(status, [&](Handle& handle) { handle.askLater(questionIn(keys, count), tag); });
}

// --------------------------------------------------------------------------------------------- subscriptions

int status_subscribe(status_t* status, const char* const* keys, size_t count)
{
    return doWith(status, [&](Handle& handle) { handle.subscribe(namesIn(keys, count)); });
}

int status_unsubscribe(status_t* status, const char* const* keys, size_t count)
{
    return doWith(status, [&](Handle& handle) { handle.unsubscribe(namesIn(keys, count)); });
}

int status_subscribe_events(status_t* status, const char* const* names, size_t count)
{
    return doWith(status, [&](Handle& handle) { handle.subscribeEvents(namesIn(names, count)); });
}

int status_unsubscribe_events(status_t* status, const char* const* names, size_t count)
{
    return doWith(status, [&](Handle& handle) { handle.unsubscribeEvents(namesIn(names, count)); });
}

// ------------------------------------------------------------------------------------------ timers, counters

int status_timer_start(status_t* status, const char* name)
{
    return postTimer(status, name, Key::startTimer, &StatusManager::startTimer);
}

int status_timer_stop(status_t* status, const char* name)
{
    return postTimer(status, name, Key::stopTimer, &StatusManager::stopTimer);
}

int status_timer_reset(status_t* status, const char* name)
{
    return postTimer(status, name, Key::resetTimer, &StatusManager::resetTimer);
}

int status_timer_restart(status_t* status, const char* name)
{
    return postTimer(status, name, Key::restartTimer, &StatusManager::restartTimer);
}

int status_timer_elapsed(status_t* status, const char* name, int timeout_ms, uint64_t* microseconds)
{
    return askForNumber(status, STATUS_ASK_TIMER_ELAPSED, name, timeout_ms, microseconds);
}

int status_timer_started(status_t* status, const char* name, int timeout_ms, uint64_t* microseconds)
{
    return askForNumber(status, STATUS_ASK_TIMER_STARTED, name, timeout_ms, microseconds);
}

int status_counter_get(status_t* status, const char* name, int timeout_ms, uint32_t* value)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      uint32_t& result = resultAt(value);
                      const Question question = questionIn(STATUS_ASK_COUNTER, name);
                      result = static_cast<uint32_t>(handle.ask(question, timeout_ms).number);
                  });
}

int status_counter_increment(status_t* status, const char* name, int timeout_ms, uint32_t* value)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      const Question question = questionIn(STATUS_ASK_INCREMENT, name);
                      const uint64_t number = handle.ask(question, timeout_ms).number;
                      if (value != nullptr)
                          *value = static_cast<uint32_t>(number);
                  });
}

int status_counter_set(status_t* status, const char* name, uint32_t value)
{
    return doWith(status,
                  [&](Handle& handle)
                  {
                      const std::string counter = nameIn(name);
                      handle.post(BrokerProtocol::writeSetCounterValue(counter, value),
                                  [=](StatusManager& manager) { manager.setCounterValue(counter, value); });
                  });
}

// ------------------------------------------------------------------------------------------------- the queue

int status_fd(status_t* status)
{
    return with(status, [](Handle& handle) { return handle.inbox().descriptor(); });
}

int status_next(status_t* status, status_item_t** item)
{
    return with(status,
                [&](Handle& handle)
                {
                    status_item_t*& result = resultAt(item);
                    Items taken;
                    if (!handle.inbox().take(taken))
                        return 0;
                    status_item_t* const block = blockOf(taken.front());
                    if (block == nullptr)
                    {
                        handle.inbox().putBack(taken);
                        throw std::bad_alloc();
                    }
                    result = block;
                    return 1;
                });
}

int64_t status_dropped(status_t* status)
{
    int64_t dropped = 0;
    const int result =
        doWith(status, [&](Handle& handle) { dropped = static_cast<int64_t>(handle.inbox().dropped()); });
    return result == STATUS_OK ? dropped : result;
}

// ---------------------------------------------------------------------------------------------------- others

const char* status_strerror(int result)
{
    switch (result)
    {
    case STATUS_EINVAL:
        return "a null pointer, an empty name, or an unknown question";
    case STATUS_ETOOLONG:
        return "a name, a value or a message is too long";
    case STATUS_EUTF8:
        return "a text is not UTF-8";
    case STATUS_EUNSENDABLE:
        return "the message has a length that cannot be sent; make a text one byte longer or shorter";
    case STATUS_ETIMEOUT:
        return "timed out";
    case STATUS_EUNUSABLE:
        return "this process gets no more answers from the broker and must be restarted";
    case STATUS_ELOST:
        return "posts of this process may have been lost";
    case STATUS_EFULL:
        return "a limit is reached";
    case STATUS_ENOMEM:
        return "not enough memory";
    case STATUS_ECLOSED:
        return "the status is closed";
    case STATUS_EFORKED:
        return "the status was opened before fork()";
    case STATUS_ENOENT:
        return "the key is unknown";
    case STATUS_ESYSTEM:
        return "the system gave no descriptor or no thread";
    default:
        return result >= 0 ? "success" : "unknown result";
    }
}

void status_free(const void* memory)
{
    std::free(const_cast<void*>(memory));
}
