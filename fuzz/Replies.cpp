// Replies, as the library reads them.

#include "fuzz/Fuzz.h"
#include "statusmanager/BrokerProtocol.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    if (const auto map = BrokerProtocol::readMapReply(text))
    {
        const std::string first = BrokerProtocol::writeMapReply(*map);
        const auto again = BrokerProtocol::readMapReply(first);
        Fuzz::require(again && BrokerProtocol::writeMapReply(*again) == first, "a map comes back");
    }
    if (const auto value = BrokerProtocol::readStatusValueReply(text))
    {
        const std::string first = BrokerProtocol::writeStatusValueReply(*value);
        const auto again = BrokerProtocol::readStatusValueReply(first);
        Fuzz::require(again && BrokerProtocol::writeStatusValueReply(*again) == first, "a value comes back");
    }
    const uint64_t number = BrokerProtocol::readTimerReply(text);
    const uint64_t again = BrokerProtocol::readTimerReply(BrokerProtocol::writeNumberReply(number));
    Fuzz::require(again == number || number > INT64_MAX, "a time comes back"); // as atoll() reads
    static_cast<void>(BrokerProtocol::readCounterReply(text));
    return 0;
}
