// Replies, as the library reads them.

#include "fuzz/Fuzz.h"
#include "protocol/ClientDocuments.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    Fuzz::requireRoundTrip(BrokerProtocol::readMapReply, BrokerProtocol::writeMapReply, text);
    Fuzz::requireRoundTrip(BrokerProtocol::readStatusValueReply, BrokerProtocol::writeStatusValueReply, text);
    const uint64_t number = BrokerProtocol::readTimerReply(text);
    const uint64_t again = BrokerProtocol::readTimerReply(BrokerProtocol::writeTimerReply(number));
    Fuzz::require(again == number || number > INT64_MAX, "a time comes back"); // as atoll() reads
    const uint32_t value = BrokerProtocol::readCounterReply(text);
    Fuzz::require(BrokerProtocol::readCounterReply(BrokerProtocol::writeCounterReply(value)) == value,
                  "a counter comes back");
    return 0;
}
