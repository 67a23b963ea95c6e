#ifndef BROKER_POLICY_POLICYVALUES_H
#define BROKER_POLICY_POLICYVALUES_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "broker/policy/PolicyCollector.h"
#include "broker/policy/PolicyToml.h"

/// Reads the values in one file of a policy. A wrong value adds an error with its line, and the returned
/// value must not be used.
class PolicyValues
{
public:
    /// Both arguments must outlive this object.
    PolicyValues(const PolicySource& source, PolicyCollector& collector)
        : mSource(source), mCollector(collector)
    {
    }

    using Line = std::size_t;
    static Line lineOf(const toml::node& value) { return value.source().begin.line; }
    static Line lineOf(const toml::key& key) { return key.source().begin.line; }

    /// "FILE:LINE"
    std::string placeOf(Line line) const { return mSource.name + ":" + std::to_string(line); }

    void fail(Line line, std::string reason) { mErrors.push_back({std::move(reason), line}); }
    void warn(Line line, const std::string& text);
    std::vector<PolicyWord>& errors() { return mErrors; }

    Actions actions(const std::string& name, const toml::node& value);
    std::vector<Glob> globs(const toml::node& value);
    void addServices(const toml::node& value, Who& who);
    void addUsers(const toml::node& value, Who& who);
    void addGroups(const toml::node& value, Who& who);

    std::optional<std::size_t> count(const std::string& name, const toml::node& value, std::size_t most);
    std::optional<std::size_t> bytes(const toml::node& value);
    std::string becomes(const toml::node& value);
    std::chrono::milliseconds grace(const toml::node& value);

private:
    std::vector<PolicyWord> words(const std::string& name, const toml::node& value);
    bool isName(const std::string& name, const PolicyWord& word);
    template <typename Id>
    void addIds(const std::string& kind, const toml::node& value, Who& who, std::vector<Id>& ids,
                std::optional<Id> (PolicyCollector::*lookUp)(const std::string&));

    const PolicySource& mSource;
    PolicyCollector& mCollector;
    std::vector<PolicyWord> mErrors;
};

#endif
