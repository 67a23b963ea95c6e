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
        return BrokerProtocol::writeList(command.key.data(), command.list);
    if (command.key == Key::updateSystemTime)
        return BrokerProtocol::writeUpdateSystemTime(command.number);
    if (command.key == Key::setCounterValue)
        return BrokerProtocol::writeSetCounterValue(command.text, command.number);
    return BrokerProtocol::writeText(command.key.data(), command.text);
}

// What is read and written once is UTF-8; from then on it must stay as it is.
template <typename Read>
void check(Read read, const std::string& text)
{
    const auto command = read(text);
    if (!command)
        return;
    const std::string first = written(*command);
    const auto again = read(first);
    Fuzz::require(again.has_value() && again->key == command->key, "what was written is read");
    Fuzz::require(written(*again) == first, "what was read is written again");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    check(BrokerProtocol::readPost, text);
    check(BrokerProtocol::readRequest, text);
    return 0;
}
