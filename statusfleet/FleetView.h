#ifndef STATUSFLEET_FLEETVIEW_H
#define STATUSFLEET_FLEETVIEW_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mqttlink/MqttLink.h"

/// A device as the server shows it.
struct DeviceView
{
    using Values = std::map<std::string, std::string>;

    bool isKnown = false; ///< it has said whether it is online
    bool isOnline = false;
    int64_t session = 0;
    int64_t since = 0; ///< seconds since the Unix epoch: when it came online; 0: unknown
    int64_t seen = 0;  ///< when it was heard of last, at the earliest; 0: unknown
    std::string version;
    int64_t eventsDropped = 0;
    Values values; ///< those that are not reset

    bool isDocument = false;   ///< the layout
    bool needsBirth = false;   ///< a message is missing, so values are old
    int64_t valuesSession = 0; ///< of the last birth or data
    int64_t sequence = 0;
};

/// The state of the fleet, from the server's messages. Nothing in them is trusted.
class FleetView
{
public:
    struct Change
    {
        enum class Kind
        {
            Value, ///< empty: reset
            Event,
            Online,
        };

        Kind kind;
        std::string device;
        std::string name; ///< of the key or event
        std::string value;
    };

    explicit FleetView(const std::string& prefix) : mRoot(prefix + "/") {}

    /// Takes a message, and returns what has changed by it. Ignores messages of other topics.
    std::vector<Change> take(const ReceivedMessage& message);

    const std::map<std::string, DeviceView>& devices() const { return mDevices; }

    /// The devices that must be asked for their state: see DeviceView::needsBirth.
    const std::set<std::string>& missing() const { return mMissing; }

    /// Null if the server has not named the device.
    const DeviceView* find(const std::string& device) const;

private:
    using Changes = std::vector<Change>;

    static Changes takeOnline(DeviceView& view, const std::string& device, const std::string& payload);
    Changes takeDocument(DeviceView& view, const std::string& device, const std::string& payload,
                         bool isBirth);
    static Changes takeEvent(const std::string& device, const std::string& name, const std::string& payload);
    static void set(DeviceView& view, const std::string& device, const std::string& key,
                    const std::string& value, Changes& changes);

    const std::string mRoot;
    std::map<std::string, DeviceView> mDevices;
    std::set<std::string> mMissing;
};

#endif
