#include "benchmarks/floor/Format.h"

#include <json/json.h>
#include <stdexcept>

// The product must write exactly the same documents.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace
{

class RawFormat : public IFormat
{
public:
    std::string writePost(const std::string& key, const std::string& value) const override
    {
        return key + ' ' + value;
    }

    Pair readPost(const std::string& message) const override
    {
        const std::size_t space = message.find(' ');
        if (space == std::string::npos)
            throw std::runtime_error("not a pair: " + message);
        return {message.substr(0, space), message.substr(space + 1)};
    }

    std::string writeUpdate(const std::string& key, const std::string& value) const override
    {
        return writePost(key, value);
    }

    Pair readUpdate(const std::string& message) const override { return readPost(message); }
    std::string writeQuery(const std::string& key) const override { return key; }
    std::string readQuery(const std::string& message) const override { return message; }
    std::string writeReply(const std::string& value) const override { return value; }
    std::string readReply(const std::string& message) const override { return message; }
};

class JsonFormat : public IFormat
{
public:
    std::string writePost(const std::string& key, const std::string& value) const override
    {
        return writePair("postStatus", key, value);
    }

    Pair readPost(const std::string& message) const override { return readPair("postStatus", message); }

    std::string writeUpdate(const std::string& key, const std::string& value) const override
    {
        return writePair("statusUpdate", key, value);
    }

    Pair readUpdate(const std::string& message) const override { return readPair("statusUpdate", message); }

    std::string writeQuery(const std::string& key) const override
    {
        return writeText("getClientInfoValue", key);
    }

    std::string readQuery(const std::string& message) const override
    {
        return parse(message)["getClientInfoValue"].asString();
    }

    std::string writeReply(const std::string& value) const override
    {
        return writeText("statusValue", value);
    }

    std::string readReply(const std::string& message) const override
    {
        return parse(message)["statusValue"].asString();
    }

private:
    static std::string write(const Json::Value& root)
    {
        Json::FastWriter writer;
        writer.omitEndingLineFeed();
        return writer.write(root);
    }

    static std::string writeText(const char* word, const std::string& text)
    {
        Json::Value root;
        root[word] = text;
        return write(root);
    }

    static std::string writePair(const char* word, const std::string& key, const std::string& value)
    {
        Json::Value root;
        root[word][key] = value;
        return write(root);
    }

    static Json::Value parse(const std::string& message)
    {
        Json::Value root;
        Json::Reader reader;
        if (!reader.parse(message, root, false))
            throw std::runtime_error("not JSON: " + message);
        return root;
    }

    static Pair readPair(const char* word, const std::string& message)
    {
        const Json::Value root = parse(message);
        const Json::Value& pair = root[word];
        if (pair.size() != 1)
            throw std::runtime_error("not a pair: " + message);
        return {pair.begin().name(), pair.begin()->asString()};
    }
};

} // namespace

std::unique_ptr<IFormat> IFormat::make(const std::string& name)
{
    if (name == "raw")
        return std::make_unique<RawFormat>();
    if (name == "json")
        return std::make_unique<JsonFormat>();
    throw std::invalid_argument("no format " + name);
}
