#ifndef BENCHMARKS_ROAD_SYSTEM_H
#define BENCHMARKS_ROAD_SYSTEM_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A compared system: it carries named values from a process to others, and is used as its user would use it.
/// A system is connected from its construction to the end of the process; it is never destroyed. Failures are
/// exceptions.
class ISystem
{
public:
    using Delivery = std::function<void(const std::string& key, const std::string& value)>;

    /// From now on, `deliver` is called for each value posted to one of the keys, always on the same thread
    /// and not the caller's. Called at most once.
    virtual void subscribe(const std::vector<std::string>& keys, Delivery deliver) = 0;

    /// Whether a subscription brings the values that are there already.
    virtual bool deliversCurrentValues() const = 0;

    /// May keep the value back until flush() or sync().
    virtual void post(const std::string& key, const std::string& value) = 0;
    virtual void flush() = 0;

    /// Waits until those that were posted before have reached the broker, as far as the system can tell.
    virtual void sync() = 0;

    /// The value that the key has now; nothing if the system cannot be asked.
    virtual std::optional<std::string> query(const std::string& key) = 0;

    virtual ~ISystem() = default;
};

/// Each system's file defines it; each system has a program of its own, so that none carries the libraries of
/// another. The arguments are those of the program.
std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments);

#endif
