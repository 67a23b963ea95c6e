// Posts and requests, as the broker reads them.

#include "fuzz/Fuzz.h"
#include "statusmanager/BrokerProtocol.h"

namespace Key = BrokerProtocol::Key;

namespace
{

std::string written(const BrokerProtocol::Command& command)
{
    if (command.key == Key::postStatus || command.key == Key::postEvent)
        return BrokerProtocol::writeMap(command.key.data(), command.map);
    if (command.key == Key::resetStatus || command.key == Key::getClientInfoValues)
        return BrokerProtocol::writeList(command.key.data(),
                                         StatusKeys(command.list.begin(), command.list.end()));
    if (command.key == Key::updateSystemTime)
        return BrokerProtocol::writeUpdateSystemTime(command.number);
    if (command.key == Key::setCounterValue)
        return BrokerProtocol::writeSetCounterValue(command.text, command.number);
    return BrokerProtocol::writeText(command.key.data(), command.text);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    Fuzz::requireRoundTrip(BrokerProtocol::readPost, written, text);
    Fuzz::requireRoundTrip(BrokerProtocol::readRequest, written, text);
    return 0;
}
