// Fuzzes how the broker reads posts and requests.

#include "fuzz/Fuzz.h"
#include "protocol/ClientDocuments.h"
#include "tests/protocol/JsonCppReading.h"

using BrokerProtocol::Command;

namespace
{

// The message that a client would write.
std::string written(const Meaning& meaning, const Command& command)
{
    namespace Protocol = BrokerProtocol;
    using Operation = Protocol::Operation;
    const char* key = Protocol::nameOf(command.operation);
    switch (command.operation)
    {
    case Operation::PostStatus:
    case Operation::PostEvent:
        return Protocol::writeMap(key, meaning.members);
    case Operation::ResetStatus:
    case Operation::GetClientInfoValues:
    case Operation::GetPolicyDecision:
    case Operation::GetStatusDetails:
    case Operation::ForgetStatus:
    case Operation::ForgetTimers:
    case Operation::ForgetCounters:
    case Operation::SetTimer:
        return Protocol::writeList(key, {meaning.texts.begin(), meaning.texts.end()});
    case Operation::UpdateSystemTime:
        return Protocol::writeUpdateSystemTime(meaning.number);
    case Operation::SetCounterValue:
        return Protocol::writeSetCounterValue(meaning.text, meaning.number);
    default:
        return Protocol::writeText(key, meaning.text);
    }
}

void check(const std::string& text, bool (Command::*read)(std::string_view),
           const JsonCppReading::Forms& forms)
{
    static Command command; // reused, as in the broker
    if (!(command.*read)(text))
        return;
    const Meaning meaning = Meaning::of(command);
    Fuzz::require(meaning.members.size() == command.members.size(), "each name is there once");
    const auto byJsonCpp = JsonCppReading::read(text, forms);
    Fuzz::require(!byJsonCpp || *byJsonCpp == meaning, "what JsonCpp accepts means the same");
    const std::string again = written(meaning, command);
    Fuzz::require((command.*read)(again) && Meaning::of(command) == meaning, "what a client writes is read");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    check(text, &Command::readPost, JsonCppReading::posts);
    check(text, &Command::readRequest, JsonCppReading::requests);
    return 0;
}
