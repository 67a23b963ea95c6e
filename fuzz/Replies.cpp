// Fuzzes how the library reads replies and the broker writes them.

#include "fuzz/Fuzz.h"
#include "protocol/ClientDocuments.h"
#include "tests/protocol/Written.h"

using namespace BrokerProtocol;

namespace
{

std::string statusValueReply(const std::string& value)
{
    return written(appendStatusValueReply, value);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    Fuzz::requireRoundTrip(readMapReply, writtenObject, text);
    Fuzz::requireRoundTrip(readStatusValueReply, statusValueReply, text);
    const uint64_t number = readTimerReply(text);
    const uint64_t again = readTimerReply(written(appendTimerReply, number));
    Fuzz::require(again == number || number > INT64_MAX, "a time comes back"); // as atoll() reads
    const uint32_t value = readCounterReply(text);
    Fuzz::require(readCounterReply(written(appendCounterReply, value)) == value, "a counter comes back");
    return 0;
}
