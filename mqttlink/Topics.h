#ifndef MQTTLINK_TOPICS_H
#define MQTTLINK_TOPICS_H

#include <optional>
#include <string>
#include <string_view>

/// The names of the device's topics on the server: PREFIX/DEVICE/...
class Topics
{
public:
    /// The longest topic of MQTT, in bytes.
    static constexpr std::size_t longest = 65535;

    Topics(const std::string& prefix, const std::string& device) : mRoot(prefix + "/" + encode(device) + "/")
    {
    }

    std::string status(const std::string& key) const { return mRoot + "status/" + encode(key); }
    std::string event(const std::string& name) const { return mRoot + "event/" + encode(name); }
    std::string online() const { return mRoot + "online"; }
    std::string birth() const { return mRoot + "birth"; }
    std::string data() const { return mRoot + "data"; }
    std::string rebirth() const { return mRoot + "cmd/rebirth"; }
    std::string desired(const std::string& level) const { return mRoot + "desired/" + level; }
    std::string reported(const std::string& key) const { return mRoot + "reported/" + encode(key); }
    std::string command(const std::string& levels) const { return mRoot + "cmd/" + levels; }

    /// The key of a topic `desired/KEY`; nothing for other topics.
    std::optional<std::string> desiredKeyOf(const std::string& topic) const;

    /// The name in a topic `cmd/NAME/ID`; nothing for other topics.
    std::optional<std::string> commandOf(const std::string& topic) const;

    /// Reverts encode(). Returns nothing for a text that encode() never returns.
    static std::optional<std::string> decode(std::string_view level);

    /// A name as one level of a topic. The letters / + # %, control characters and a leading $ become %XX,
    /// and so do other letters that a server may refuse.
    static std::string encode(std::string_view name);

    /// Returns the error in a prefix; empty if there is none.
    static std::string errorInPrefix(const std::string& prefix);

private:
    std::string mRoot;
};

#endif
