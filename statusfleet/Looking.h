#ifndef STATUSFLEET_LOOKING_H
#define STATUSFLEET_LOOKING_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "statusfleet/Desk.h"
#include "statusfleet/FleetView.h"
#include "statusfleet/Verb.h"

/// The fleet as the servers show it, for commands that look.
class Looking
{
public:
    using Changed = std::function<void(const FleetView::Change&)>;

    /// Takes what the servers have retained.
    /// @param device a name or a glob
    /// @param levels which topics of the device, for example "online"
    Looking(const Call& call, const std::string& device, const std::vector<std::string>& levels,
            Changed changed = nullptr);

    const FleetView& view() const { return mView; }

    /// The device, with all its values. In the layout document, its latest changes are not retained: the
    /// device is asked for its state, if it is online.
    /// @throws Failure if the server has nothing of the device
    const DeviceView& device(const std::string& name);

    /// Follows changes until the deadline.
    void follow();

    /// The topics of values in both layouts, and of the device's condition.
    static std::vector<std::string> values(const std::string& key);

    /// Whether the text is a glob.
    static bool isGlob(const std::string& text);

private:
    void take(const ReceivedMessage& message);
    void askForMissing();

    const Call& mCall;
    FleetView mView;
    Changed mChanged;
    std::set<std::string> mAsked; // devices that are to send their state
    Desk mDesk;
};

#endif
