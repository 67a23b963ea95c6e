// Writes and reads each document of the protocol.

#include <functional>
#include <stdexcept>
#include <vector>

#include "benchmarks/micro/Measured.h"
#include "benchmarks/micro/Samples.h"
#include "protocol/ClientDocuments.h"
#include "tests/protocol/Written.h"

namespace Key = BrokerProtocol::Key;

namespace
{

struct Document
{
    std::string name;
    std::function<std::string()> write;
    std::function<bool(const std::string&)> read; ///< reads as the receiver does; true on success
};

bool readPost(const std::string& text)
{
    static BrokerProtocol::Command command; // reused, as in the broker
    return command.readPost(text);
}

bool readRequest(const std::string& text)
{
    static BrokerProtocol::Command command;
    return command.readRequest(text);
}

bool readMapReply(const std::string& text)
{
    return BrokerProtocol::readMapReply(text).has_value();
}

bool readStatusValueReply(const std::string& text)
{
    return BrokerProtocol::readStatusValueReply(text).has_value();
}

bool readStatisticsReply(const std::string& text)
{
    return BrokerProtocol::readStatisticsReply(text).has_value();
}

bool readTimerReply(const std::string& text)
{
    return BrokerProtocol::readTimerReply(text) != 0;
}

bool readCounterReply(const std::string& text)
{
    return BrokerProtocol::readCounterReply(text) != 0;
}

bool readNotification(const std::string& text)
{
    return !BrokerProtocol::readNotification(text).members.empty();
}

BrokerProtocol::Statistics sampleStatistics()
{
    BrokerProtocol::Statistics statistics;
    for (std::size_t i = 0; i < 40; ++i)
        statistics[Samples::name(i)] = i * 1000;
    return statistics;
}

Document text(const char* key, bool (*read)(const std::string&))
{
    return {key, [key, name = Samples::name(1)] { return BrokerProtocol::writeText(key, name); }, read};
}

std::vector<Document> documentsOfOneThing()
{
    using namespace BrokerProtocol;
    const std::string name = Samples::name(1);
    const std::string value = Samples::value(1);
    return {
        text(Key::startTimer, readPost),
        text(Key::stopTimer, readPost),
        text(Key::resetTimer, readPost),
        text(Key::restartTimer, readPost),
        {Key::setCounterValue, [=] { return writeSetCounterValue(name, 12345); }, ::readPost},
        {Key::updateSystemTime, [] { return writeUpdateSystemTime(1700000000); }, ::readPost},
        {Key::postEvent, [=] { return writePostEvent(name, value); }, ::readPost},
        {Key::getClientInfo, writeGetClientInfo, ::readRequest},
        text(Key::getClientInfoValue, readRequest),
        text(Key::getTimerElapsed, readRequest),
        text(Key::getTimerLastStarted, readRequest),
        text(Key::getCounterValue, readRequest),
        text(Key::incrementCounter, readRequest),
        {Key::getBrokerStatistics, writeGetBrokerStatistics, ::readRequest},
        {"statusValueReply", [=] { return written(appendStatusValueReply, value); }, ::readStatusValueReply},
        {"timerReply", [] { return written(appendTimerReply, 1700000000000000U); }, ::readTimerReply},
        {"counterReply", [] { return written(appendCounterReply, 12345U); }, ::readCounterReply},
        {"statisticsReply", [numbers = sampleStatistics()] { return written(appendNumbers, numbers); },
         ::readStatisticsReply},
        // A text that needs escapes takes a slower path.
        {"postStatusEscaped",
         [=] {
             return writeMap(Key::postStatus, {{name, "\"" + value + "\""}});
         },
         ::readPost},
        {Key::eventUpdate,
         [event = Samples::values(1)] { return written(appendUpdate, Key::eventUpdate, membersIn(event)); },
         ::readNotification},
    };
}

std::vector<Document> documentsOfMany(std::size_t count)
{
    using namespace BrokerProtocol;
    const StatusKeys names = Samples::names(count);
    const StatusMap values = Samples::values(count);
    std::vector<Document> documents{
        {Key::postStatus, [=] { return writeMap(Key::postStatus, values); }, ::readPost},
        {Key::resetStatus, [=] { return writeList(Key::resetStatus, names); }, ::readPost},
        {Key::getClientInfoValues, [=] { return writeList(Key::getClientInfoValues, names); }, ::readRequest},
        {"mapReply", [=] { return writtenObject(values); }, ::readMapReply},
        {Key::statusUpdate, [=] { return written(appendUpdate, Key::statusUpdate, membersIn(values)); },
         ::readNotification},
    };
    for (Document& document : documents)
        document.name += "/" + std::to_string(count);
    return documents;
}

void write(benchmark::State& state, const Document& document)
{
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(document.write());
}

void read(benchmark::State& state, const Document& document)
{
    const std::string text = document.write();
    if (!document.read(text))
        throw std::logic_error(document.name + " cannot be read");
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(document.read(text));
}

bool registerAll(const std::vector<Document>& documents)
{
    for (const Document& document : documents)
    {
        benchmark::RegisterBenchmark(("write/" + document.name).c_str(), write, document);
        benchmark::RegisterBenchmark(("read/" + document.name).c_str(), read, document);
    }
    return true;
}

[[maybe_unused]] const bool registered =
    registerAll(documentsOfOneThing()) && registerAll(documentsOfMany(1)) &&
    registerAll(documentsOfMany(10)) && registerAll(documentsOfMany(100));

} // namespace
