#include "broker/policy/PolicyReader.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "broker/policy/PolicyCollector.h"
#include "broker/policy/PolicyText.h"
#include "broker/policy/PolicyToml.h"
#include "broker/policy/PolicyValues.h"
#include "daemon/OptionText.h"

using OptionText::quoted;

namespace
{

// The library's messages may quote the file.
std::string harmless(std::string_view text)
{
    constexpr std::size_t longest = 200;
    std::string result(text.substr(0, longest));
    std::replace_if(
        result.begin(), result.end(), [](char letter) { return letter < ' ' || letter > '~'; }, '?');
    return result;
}

// Reads one file.
class FileReader
{
public:
    FileReader(const PolicySource& source, PolicyCollector& collector)
        : mSource(source), mCollector(collector), mValues(source, collector)
    {
    }

    void read()
    {
        if (isText())
            parse();
        mCollector.addErrors(mSource.name, mValues.errors());
    }

private:
    using Line = PolicyValues::Line;

    bool isText();
    void parse();
    void readFile(const toml::table& file);
    void readDefault(const toml::node& value);
    void readMode(const toml::node& value);
    void readTables(const std::string& name, const toml::node& value,
                    void (FileReader::*take)(const toml::table&));

    void readRule(const toml::table& table);
    void readQuota(const toml::table& table);
    void readTie(const toml::table& table);
    void enter(PolicyQuota quota, const Who& who, Line line);

    template <typename Place>
    static Line lineOf(const Place& place)
    {
        return PolicyValues::lineOf(place);
    }
    std::string placeOf(Line line) const { return mValues.placeOf(line); }
    void fail(Line line, std::string reason) { mValues.fail(line, std::move(reason)); }

    const PolicySource& mSource;
    PolicyCollector& mCollector;
    PolicyValues mValues;
};

bool FileReader::isText()
{
    if (mSource.text.size() > PolicyLimits::fileBytes)
    {
        mCollector.addError(mSource.name + ": longer than " + std::to_string(PolicyLimits::fileBytes) +
                            " bytes");
        return false;
    }
    mValues.errors() = errorsInPolicyText(mSource.text);
    return mValues.errors().empty();
}

void FileReader::parse()
{
    const toml::parse_result result = toml::parse(std::string_view(mSource.text));
    if (result)
        readFile(result.table());
    else
        fail(std::max<Line>(1, result.error().source().begin.line), harmless(result.error().description()));
}

void FileReader::readFile(const toml::table& file)
{
    for (const auto& [key, value] : file)
    {
        const std::string name(key.str());
        if (name == "default")
            readDefault(value);
        else if (name == "mode")
            readMode(value);
        else if (name == "rule")
            readTables(name, value, &FileReader::readRule);
        else if (name == "quota")
            readTables(name, value, &FileReader::readQuota);
        else if (name == "owned")
            readTables(name, value, &FileReader::readTie);
        else
            fail(lineOf(key), "unknown name " + quoted(name) + " (known: default, mode, rule, quota, owned)");
    }
}

void FileReader::readDefault(const toml::node& value)
{
    PolicyRule& rule = mCollector.defaultRule();
    const auto* text = value.as_string();
    if (text == nullptr || (text->get() != "allow" && text->get() != "deny"))
        fail(lineOf(value), R"(default must be "allow" or "deny")");
    else if (!rule.place.empty())
        fail(lineOf(value), "default is already set in " + rule.place);
    else
    {
        rule.isAllowed = text->get() == "allow";
        rule.place = placeOf(lineOf(value));
    }
}

void FileReader::readMode(const toml::node& value)
{
    PolicyContent& content = mCollector.content();
    const auto* text = value.as_string();
    if (text == nullptr || (text->get() != "enforce" && text->get() != "audit"))
        fail(lineOf(value), R"(mode must be "enforce" or "audit")");
    else if (!content.modePlace.empty())
        fail(lineOf(value), "mode is already set in " + content.modePlace);
    else
    {
        content.isAudit = text->get() == "audit";
        content.modePlace = placeOf(lineOf(value));
    }
}

void FileReader::readTables(const std::string& name, const toml::node& value,
                            void (FileReader::*take)(const toml::table&))
{
    const toml::array* tables = value.as_array();
    if (tables == nullptr)
    {
        fail(lineOf(value), "each " + name + " begins with [[" + name + "]]");
        return;
    }
    for (const toml::node& each : *tables)
    {
        const toml::table* table = each.as_table();
        if (table == nullptr)
            fail(lineOf(each), "each " + name + " begins with [[" + name + "]]");
        else if (mCollector.countTable())
            (this->*take)(*table);
        else if (mCollector.isFirstBeyondTables())
            fail(lineOf(each), "more than " + std::to_string(PolicyLimits::tables) +
                                   " rules, quotas and owned tables in all files");
    }
}

// ------------------------------------------------------------------------------------------------- tables

void FileReader::readRule(const toml::table& table)
{
    PolicyRule rule;
    rule.place = placeOf(lineOf(table));
    Who who;
    const std::size_t errorsBefore = mValues.errors().size();
    bool isComplete = false;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "service")
            mValues.addServices(value, who);
        else if (name == "user")
            mValues.addUsers(value, who);
        else if (name == "group")
            mValues.addGroups(value, who);
        else if (name == "keys")
            rule.names = mValues.globs(value);
        else if (name == "allow" || name == "deny")
        {
            if (isComplete)
                fail(lineOf(key), "a rule either allows or denies: write two rules");
            isComplete = true;
            rule.isAllowed = name == "allow";
            rule.actions = mValues.actions(name, value);
        }
        else if (name == "default" || name == "mode")
            fail(lineOf(key), name + " is not part of a rule: write it above the first [[rule]]");
        else
            fail(lineOf(key), "unknown name " + quoted(name) +
                                  " in a rule (known: service, user, group, allow, deny, keys)");
    }
    if (!isComplete)
        fail(lineOf(table), "a rule needs allow or deny");
    if (mValues.errors().size() != errorsBefore)
        return;
    if (rule.actions.has(Action::Time) && !(rule.actions == Actions::all()) && !rule.isForEveryName())
        mValues.warn(lineOf(table),
                     "the rule never decides on time, which has no name: leave out keys for it");
    rule.who = mCollector.indexOf(std::move(who));
    mCollector.content().rules.push_back(std::move(rule));
}

void FileReader::readQuota(const toml::table& table)
{
    PolicyQuota quota;
    quota.place = placeOf(lineOf(table));
    Who who;
    const std::size_t errorsBefore = mValues.errors().size();
    constexpr std::size_t million = 1'000'000;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "user")
            mValues.addUsers(value, who);
        else if (name == "keys")
            quota.keys = mValues.count(name, value, million);
        else if (name == "bytes")
            quota.bytes = mValues.bytes(value);
        else if (name == "connections")
            quota.connections = mValues.count(name, value, million);
        else if (name == "posts-per-second")
            quota.postsPerSecond = mValues.count(name, value, million);
        else
            fail(lineOf(key), "unknown name " + quoted(name) +
                                  " in a quota (known: user, keys, bytes, connections, posts-per-second)");
    }
    if (mValues.errors().size() != errorsBefore)
        return;
    if (!quota.keys && !quota.bytes && !quota.connections && !quota.postsPerSecond)
        fail(lineOf(table), "a quota needs keys, bytes, connections or posts-per-second");
    else
        enter(std::move(quota), who, lineOf(table));
}

void FileReader::enter(PolicyQuota quota, const Who& who, Line line)
{
    PolicyContent& content = mCollector.content();
    const std::size_t index = content.quotas.size();
    if (who.isAnyone())
    {
        if (content.usualQuota)
        {
            fail(line,
                 "there is already a quota without a user, in " + content.quotas[*content.usualQuota].place);
            return;
        }
        content.usualQuota = index;
    }
    for (const uid_t user : who.users)
    {
        const auto [place, isNew] = mCollector.quotaOf(user, index);
        if (!isNew)
        {
            fail(line,
                 "user " + std::to_string(user) + " already has a quota, in " + content.quotas[place].place);
            return;
        }
    }
    quota.text = (who.isAnyone() ? "each other user" : who.text) + ": " + quota.limits();
    content.quotas.push_back(std::move(quota));
}

void FileReader::readTie(const toml::table& table)
{
    PolicyTie tie;
    tie.place = placeOf(lineOf(table));
    const std::size_t errorsBefore = mValues.errors().size();
    bool hasKeys = false;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "keys")
        {
            tie.names = mValues.globs(value);
            hasKeys = true;
        }
        else if (name == "becomes")
            tie.becomes = mValues.becomes(value);
        else if (name == "grace")
            tie.grace = mValues.grace(value);
        else
            fail(lineOf(key), "unknown name " + quoted(name) + " in owned (known: keys, becomes, grace)");
    }
    if (!hasKeys)
        fail(lineOf(table), "owned needs keys");
    if (mValues.errors().size() == errorsBefore)
        mCollector.content().ties.push_back(std::move(tie));
}

} // namespace

PolicyContent readPolicy(const std::vector<PolicySource>& sources, const PolicyNames& names,
                         std::vector<std::string>& errors)
{
    PolicyCollector collector(names, errors);
    for (const PolicySource& source : sources)
        FileReader(source, collector).read();
    return collector.finished();
}
