// Fuzzes how the library reads notifications and the broker writes them.

#include "fuzz/Fuzz.h"
#include "protocol/ClientDocuments.h"
#include "tests/protocol/Written.h"

using BrokerProtocol::Notification;

namespace
{

std::string asWritten(const Notification& notification)
{
    namespace Key = BrokerProtocol::Key;
    const bool isStatus = notification.kind == Notification::Kind::StatusUpdate;
    return ::written(BrokerProtocol::appendUpdate, isStatus ? Key::statusUpdate : Key::eventUpdate,
                     membersIn(notification.members));
}

bool isUpdate(const Notification& notification)
{
    return notification.kind == Notification::Kind::StatusUpdate ||
           notification.kind == Notification::Kind::EventUpdate;
}

std::optional<Notification> readUpdate(const std::string& text)
{
    const Notification notification = BrokerProtocol::readNotification(text);
    if (isUpdate(notification))
        return notification;
    Fuzz::require(notification.members.empty(), "nothing is delivered of what is no update");
    return std::nullopt;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Fuzz::requireRoundTrip(readUpdate, asWritten, Fuzz::textOf(data, size));
    return 0;
}
