#ifndef BENCHMARKS_FLOOR_FORMAT_H
#define BENCHMARKS_FLOOR_FORMAT_H

#include <memory>
#include <string>

/// How the messages of a floor are written. Each reading operation throws std::runtime_error on what it
/// cannot read.
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

    /// "raw": the bare texts. "json": documents like the product's, each written and read with JsonCpp in the
    /// plainest way; this must not profit from what is done to make the product's faster, or it would be no
    /// yardstick.
    static std::unique_ptr<IFormat> make(const std::string& name);
};

#endif
