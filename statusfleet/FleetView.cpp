#include "statusfleet/FleetView.h"

#include <optional>

#include "mqttlink/Topics.h"
#include "statusctl/text/Json.h"

namespace
{

int64_t numberIn(const Json::Value& object, const char* name)
{
    const Json::Value& number = object[name];
    return number.isInt64() ? number.asInt64() : 0;
}

std::string textIn(const Json::Value& object, const char* name)
{
    const Json::Value& text = object[name];
    return text.isString() ? text.asString() : std::string();
}

bool begins(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

} // namespace

const DeviceView* FleetView::find(const std::string& device) const
{
    const auto found = mDevices.find(device);
    return found == mDevices.end() ? nullptr : &found->second;
}

FleetView::Changes FleetView::take(const ReceivedMessage& message)
{
    const std::string& topic = message.topic;
    const std::size_t slash = topic.find('/', mRoot.size());
    if (!begins(topic, mRoot) || slash == std::string::npos)
        return {};
    const auto device = Topics::decode(topic.substr(mRoot.size(), slash - mRoot.size()));
    if (!device)
        return {};
    const std::string kind = topic.substr(slash + 1);
    const std::size_t second = kind.find('/');
    const auto name = Topics::decode(second == std::string::npos ? "" : kind.substr(second + 1));
    if (kind == "online")
        return takeOnline(mDevices[*device], *device, message.payload);
    if (kind == "birth" || kind == "data")
        return takeDocument(mDevices[*device], *device, message.payload, kind == "birth");
    if (begins(kind, "event/") && name)
        return takeEvent(*device, *name, message.payload);
    Changes changes;
    if (begins(kind, "status/") && name)
        set(mDevices[*device], *device, *name, message.payload, changes);
    return changes;
}

// A late will of an older session says nothing about the present one.
FleetView::Changes FleetView::takeOnline(DeviceView& view, const std::string& device,
                                         const std::string& payload)
{
    const bool wasOnline = view.isOnline;
    const std::optional<Json::Value> online = JsonText::readObject(payload);
    if (payload.empty()) // it has expired
        view.isOnline = false;
    if (!online || !(*online)["online"].isBool() || numberIn(*online, "session") < view.session)
        return {};
    const bool isFirst = !view.isKnown;
    view.isKnown = true;
    view.isOnline = (*online)["online"].asBool();
    view.session = numberIn(*online, "session");
    view.since = numberIn(*online, "since");
    view.seen = numberIn(*online, "time");
    view.version = textIn(*online, "version");
    view.eventsDropped = numberIn(*online, "eventsDropped");
    if (!isFirst && wasOnline == view.isOnline)
        return {};
    return {{Change::Kind::Online, device, "", view.isOnline ? "online" : "offline"}};
}

FleetView::Changes FleetView::takeDocument(DeviceView& view, const std::string& device,
                                           const std::string& payload, bool isBirth)
{
    const std::optional<Json::Value> document = JsonText::readObject(payload);
    if (!document || !(*document)["values"].isObject())
        return {};
    const int64_t session = numberIn(*document, "session");
    const int64_t sequence = numberIn(*document, "sequence");
    if (session < view.valuesSession)
        return {};
    const bool isNext = session == view.valuesSession && sequence == view.sequence + 1;
    const bool isOld = session == view.valuesSession && sequence <= view.sequence;
    if (!isBirth && isOld)
        return {};
    view.needsBirth = !isBirth && (view.needsBirth || !isNext);
    if (view.needsBirth)
        mMissing.insert(device);
    else
        mMissing.erase(device);
    view.isDocument = true;
    view.valuesSession = session;
    view.sequence = sequence;
    const Json::Value& values = (*document)["values"];
    Changes changes;
    if (isBirth)
    {
        for (const auto& [key, value] : DeviceView::Values(view.values))
        {
            if (!values.isMember(key))
                set(view, device, key, "", changes);
        }
    }
    for (const std::string& key : values.getMemberNames())
    {
        if (values[key].isString())
            set(view, device, key, values[key].asString(), changes);
    }
    return changes;
}

FleetView::Changes FleetView::takeEvent(const std::string& device, const std::string& name,
                                        const std::string& payload)
{
    const std::optional<Json::Value> event = JsonText::readObject(payload);
    if (!event)
        return {};
    return {{Change::Kind::Event, device, name, textIn(*event, "value")}};
}

void FleetView::set(DeviceView& view, const std::string& device, const std::string& key,
                    const std::string& value, Changes& changes)
{
    const auto before = view.values.find(key);
    if ((before == view.values.end() ? std::string() : before->second) == value)
        return;
    if (value.empty())
        view.values.erase(before);
    else
        view.values[key] = value;
    changes.push_back({Change::Kind::Value, device, key, value});
}
