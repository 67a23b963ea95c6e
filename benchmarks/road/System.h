#ifndef BENCHMARKS_ROAD_SYSTEM_H
#define BENCHMARKS_ROAD_SYSTEM_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A compared system, which carries named values from one process to others. The code uses it as a typical
/// user would. A system is connected from its construction to the end of the process and never destroyed.
/// Failures throw exceptions.
class ISystem
{
public:
    using Delivery = std::function<void(const std::string& key, const std::string& value)>;

    /// Calls `deliver` for each later value of one of the keys, always on the same thread, which is not the
    /// caller's. Call subscribe() at most once.
    virtual void subscribe(const std::vector<std::string>& keys, Delivery deliver) = 0;

    /// Whether a subscription also delivers the current values.
    virtual bool deliversCurrentValues() const = 0;

    /// Posts a value. May delay it until flush() or sync().
    virtual void post(const std::string& key, const std::string& value) = 0;
    virtual void flush() = 0;

    /// Waits until earlier posts have reached the broker, as far as the system can tell.
    virtual void sync() = 0;

    /// Returns the current value of the key; nothing if the system has no queries.
    virtual std::optional<std::string> query(const std::string& key) = 0;

    virtual ~ISystem() = default;
};

/// Defined in each system's file. Each system has its own program, so that no program loads another system's
/// libraries. `arguments` are the program's arguments.
std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments);

#endif
