#ifndef BENCHMARKS_FLOOR_FORMAT_H
#define BENCHMARKS_FLOOR_FORMAT_H

#include <memory>
#include <string>

/// Writes and reads the messages of a floor. Each reading operation throws std::runtime_error for a text that
/// it cannot read.
class IFormat
{
public:
    struct Pair
    {
        std::string key;
        std::string value;
    };

    virtual std::string writePost(const std::string& key, const std::string& value) const = 0;
    virtual Pair readPost(const std::string& message) const = 0;
    virtual std::string writeUpdate(const std::string& key, const std::string& value) const = 0;
    virtual Pair readUpdate(const std::string& message) const = 0;
    virtual std::string writeQuery(const std::string& key) const = 0;
    virtual std::string readQuery(const std::string& message) const = 0;
    virtual std::string writeReply(const std::string& value) const = 0;
    virtual std::string readReply(const std::string& message) const = 0;

    virtual ~IFormat() = default;

    /// "raw": bare texts. "json": documents like the product's, written and read with JsonCpp in the simplest
    /// way. It must not use the product's optimisations, or it would not be a fixed reference.
    static std::unique_ptr<IFormat> make(const std::string& name);
};

#endif
