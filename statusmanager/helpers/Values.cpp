#include "statusmanager/helpers/Values.h"

#include <algorithm>
#include <limits>

#include "common/Logging.h"
#include "protocol/ClientDocuments.h"

OV_LOG_CONTROL_WORDS;

namespace Key = BrokerProtocol::Key;

namespace status
{

namespace
{

bool isRefused(const char* function, const std::string& message)
{
    if (!BrokerProtocol::losesItsEnd(message.size()))
        return false;
    ov_log_print(2, function, OV_LOG_FILE, __LINE__,
                 "Not posted: its message has %zu bytes, a multiple of %zu, and would lose its end",
                 message.size(), BrokerProtocol::maxFrameBytes);
    return true;
}

} // namespace

std::optional<std::string> find(const std::string& key, StatusManager& manager)
{
    // getClientInfoValue() would not distinguish an unknown key from a reset one.
    StatusKeys keys{key};
    if (BrokerProtocol::losesItsEnd(BrokerProtocol::writeList(Key::getClientInfoValues, keys).size()))
        keys.push_back(key); // the same question with another length
    const StatusMap values = manager.getClientInfoValues(keys);
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt : std::optional<std::string>(found->second);
}

bool post(std::string key, std::string value, StatusManager& manager)
{
    return post(StatusMap{{std::move(key), std::move(value)}}, manager);
}

bool post(std::string key, const char* value, StatusManager& manager)
{
    if (value == nullptr)
    {
        OV_LOG(2, "Not posted: the value of [%s] is a null pointer", key.c_str());
        return false;
    }
    return post(std::move(key), std::string(value), manager);
}

bool post(StatusMap values, StatusManager& manager)
{
    if (isRefused(__PRETTY_FUNCTION__, BrokerProtocol::writeMap(Key::postStatus, values)))
        return false;
    manager.postStatus(std::move(values));
    return true;
}

bool postEvent(std::string name, std::string value, std::chrono::milliseconds delay, StatusManager& manager)
{
    constexpr std::chrono::milliseconds longest(std::numeric_limits<uint32_t>::max());
    if (isRefused(__PRETTY_FUNCTION__, BrokerProtocol::writePostEvent(name, value)))
        return false;
    const auto delayMs = std::clamp(delay, std::chrono::milliseconds(0), longest).count();
    manager.postEvent(std::move(name), std::move(value), static_cast<uint32_t>(delayMs));
    return true;
}

} // namespace status
