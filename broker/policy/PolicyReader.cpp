#include "broker/policy/PolicyReader.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

#include "broker/base/OptionText.h"
#include "broker/policy/PolicyText.h"

// The only file that includes the library: it is large, and all in headers. Its parser reports errors as
// results.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
// Some texts, such as "[+]", violate what the library asserts, and it reports them well all the same. With
// NDEBUG it would let the compiler rely on the assertions.
#undef NDEBUG
#define TOML_ASSERT(expression) static_assert(true)
#define TOML_MAX_NESTED_VALUES 4 // a policy needs two: tables in a list in a table of the file
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wundef"
// For most letters beyond ASCII that it meets, version 3.3 reaches what it believes to be unreachable, and
// the program may do anything then. They are no whitespace.
#include <toml++/impl/forward_declarations.h>
#include <toml++/impl/preprocessor.h>
#undef TOML_UNREACHABLE
#define TOML_UNREACHABLE return false
#include <toml++/impl/unicode.h>
#undef TOML_UNREACHABLE
#define TOML_UNREACHABLE __builtin_unreachable()
#include <toml++/toml.h>
#pragma GCC diagnostic pop

using OptionText::quoted;

namespace
{

using Line = std::size_t;

// -------------------------------------------------------------------------------------------------- texts

// The library's messages may repeat the file.
std::string harmless(std::string_view text)
{
    constexpr std::size_t longest = 200;
    std::string result(text.substr(0, longest));
    std::replace_if(
        result.begin(), result.end(), [](char letter) { return letter < ' ' || letter > '~'; }, '?');
    return result;
}

std::string joined(const std::vector<std::string>& words, const char* between)
{
    std::string result;
    for (const std::string& word : words)
        result += (result.empty() ? "" : between) + word;
    return result;
}

void addTo(std::string& text, const std::string& part)
{
    text += (text.empty() ? "" : ", ") + part;
}

std::string quotaText(const PolicyQuota& quota)
{
    std::string text;
    const auto add = [&](const std::optional<std::size_t>& number, const char* unit)
    {
        if (number)
            addTo(text, std::to_string(*number) + unit);
    };
    add(quota.keys, " keys");
    add(quota.bytes, " bytes");
    add(quota.connections, " connections");
    add(quota.postsPerSecond, " posts per second");
    return text;
}

std::string errorInService(const std::string& name)
{
    constexpr std::string_view letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:-_.\\@";
    const bool isName = !name.empty() && name.find_first_not_of(letters) == std::string::npos;
    return isName ? std::string() : quoted(name) + " is not the name of a service";
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() > end.size() && text.substr(text.size() - end.size()) == end;
}

// As systemd's tools complete it.
std::string unitName(const std::string& name)
{
    return endsWith(name, ".service") || endsWith(name, ".scope") ? name : name + ".service";
}

std::optional<std::chrono::milliseconds> readDuration(std::string_view text)
{
    constexpr std::pair<std::string_view, int64_t> units[] = {{"ms", 1}, {"s", 1000}, {"m", 60000}};
    constexpr int64_t longest = 3'600'000;
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = OptionText::readNumber(text.substr(0, digits));
    for (const auto& [unit, factor] : units)
    {
        if (number && text.substr(digits) == unit && *number <= static_cast<uint64_t>(longest / factor))
            return std::chrono::milliseconds(static_cast<int64_t>(*number) * factor);
    }
    return std::nullopt;
}

using Word = PolicyWord;
using Words = std::vector<Word>;

// ------------------------------------------------------------------------------------------- all the files

// The policy and its errors, which grow from file to file.
class Collector
{
public:
    Collector(const PolicyNames& names, std::vector<std::string>& errors) : mNames(names), mErrors(errors)
    {
        mContent.whos.emplace_back().text = "anyone";
    }

    PolicyContent finished()
    {
        mContent.rules.push_back(std::move(mDefault));
        if (mLeftOut != 0)
            mErrors.push_back("and " + std::to_string(mLeftOut) + " more errors");
        return std::move(mContent);
    }

    PolicyContent& content() { return mContent; }
    PolicyRule& defaultRule() { return mDefault; }

    void addErrors(const std::string& file, std::vector<Word>& errors)
    {
        std::stable_sort(errors.begin(), errors.end(),
                         [](const Word& one, const Word& other) { return one.line < other.line; });
        for (const Word& error : errors)
            addError(file + ":" + std::to_string(error.line) + ": " + error.text);
    }

    void addError(std::string text)
    {
        if (mErrors.size() < PolicyLimits::errors)
            mErrors.push_back(std::move(text));
        else
            ++mLeftOut;
    }

    // False beyond the limit; the error is told only once.
    bool countTable() { return ++mTables <= PolicyLimits::tables; }
    bool isFirstBeyondTables() const { return mTables == PolicyLimits::tables + 1; }
    bool countName() { return ++mWords <= PolicyLimits::names; }
    bool isFirstBeyondNames() const { return mWords == PolicyLimits::names + 1; }

    std::optional<uid_t> user(const std::string& name) { return lookUp(mUsers, mNames.user, name); }
    std::optional<gid_t> group(const std::string& name) { return lookUp(mGroups, mNames.group, name); }

    uint16_t indexOf(Who who)
    {
        if (who.isAnyone())
            return 0;
        const auto [place, isNew] = mWhos.try_emplace(who.text, mContent.whos.size());
        if (isNew)
            mContent.whos.push_back(std::move(who));
        return static_cast<uint16_t>(place->second);
    }

    // The quota that the user has, and whether it is the one given.
    std::pair<std::size_t, bool> quotaOf(uid_t user, std::size_t quota)
    {
        const auto [place, isNew] = mQuotas.try_emplace(user, quota);
        if (isNew)
            mContent.userQuotas.push_back({user, quota});
        return {place->second, place->second == quota};
    }

private:
    template <typename Id>
    using Ids = std::map<std::string, std::optional<Id>>;

    template <typename Id, typename Function>
    static std::optional<Id> lookUp(Ids<Id>& known, const Function& function, const std::string& name)
    {
        const auto [place, isNew] = known.try_emplace(name);
        if (isNew && function)
            place->second = function(name);
        return place->second;
    }

    const PolicyNames& mNames;
    std::vector<std::string>& mErrors;
    std::size_t mLeftOut = 0;
    std::size_t mTables = 0;
    std::size_t mWords = 0;
    std::map<std::string, std::size_t> mWhos;
    std::map<uid_t, std::size_t> mQuotas;
    Ids<uid_t> mUsers;
    Ids<gid_t> mGroups;
    PolicyRule mDefault{true, 0, Actions::all(), {}, {}};
    PolicyContent mContent;
};

// ------------------------------------------------------------------------------------------------ one file

class FileReader
{
public:
    FileReader(const PolicySource& source, Collector& collector) : mSource(source), mCollector(collector) {}

    void read()
    {
        if (isText())
            parse();
        mCollector.addErrors(mSource.name, mErrors);
    }

private:
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

    Actions readActions(const std::string& name, const toml::node& value);
    std::vector<Glob> readGlobs(const toml::node& value);
    void readServices(const toml::node& value, Who& who);
    void readUsers(const toml::node& value, Who& who);
    void readGroups(const toml::node& value, Who& who);
    std::string readBecomes(const toml::node& value);
    std::chrono::milliseconds readGrace(const toml::node& value);
    std::optional<std::size_t> readCount(const std::string& name, const toml::node& value, std::size_t most);
    std::optional<std::size_t> readBytes(const toml::node& value);
    void enter(PolicyQuota quota, const Who& who, Line line);

    Words readWords(const std::string& name, const toml::node& value);
    bool isName(const std::string& name, const Word& word);
    template <typename Id>
    void readIds(const std::string& kind, const toml::node& value, Who& who, std::vector<Id>& ids,
                 std::optional<Id> (Collector::*lookUp)(const std::string&));

    void fail(Line line, std::string reason) { mErrors.push_back({std::move(reason), line}); }
    std::string placeOf(Line line) const { return mSource.name + ":" + std::to_string(line); }
    void warn(Line line, const std::string& text)
    {
        mCollector.content().warnings.push_back(placeOf(line) + ": " + text);
    }
    static Line lineOf(const toml::node& value) { return value.source().begin.line; }
    static Line lineOf(const toml::key& key) { return key.source().begin.line; }

    const PolicySource& mSource;
    Collector& mCollector;
    Words mErrors;
};

bool FileReader::isText()
{
    if (mSource.text.size() > PolicyLimits::fileBytes)
    {
        mCollector.addError(mSource.name + ": longer than " + std::to_string(PolicyLimits::fileBytes) +
                            " bytes");
        return false;
    }
    mErrors = errorsInPolicyText(mSource.text);
    return mErrors.empty();
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
            fail(lineOf(key),
                 "unknown name " + quoted(name) + " (there are default, mode, rule, quota, owned)");
    }
}

void FileReader::readDefault(const toml::node& value)
{
    PolicyRule& rule = mCollector.defaultRule();
    const auto* text = value.as_string();
    if (text == nullptr || (text->get() != "allow" && text->get() != "deny"))
        fail(lineOf(value), R"(default is "allow" or "deny")");
    else if (!rule.place.empty())
        fail(lineOf(value), "default is set already, in " + rule.place);
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
        fail(lineOf(value), R"(mode is "enforce" or "audit")");
    else if (!content.modePlace.empty())
        fail(lineOf(value), "mode is set already, in " + content.modePlace);
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
                                   " rules, quotas and owned in all files");
    }
}

// ------------------------------------------------------------------------------------------------- tables

void FileReader::readRule(const toml::table& table)
{
    PolicyRule rule;
    rule.place = placeOf(lineOf(table));
    Who who;
    const std::size_t errorsBefore = mErrors.size();
    bool isComplete = false;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "service")
            readServices(value, who);
        else if (name == "user")
            readUsers(value, who);
        else if (name == "group")
            readGroups(value, who);
        else if (name == "keys")
            rule.names = readGlobs(value);
        else if (name == "allow" || name == "deny")
        {
            if (isComplete)
                fail(lineOf(key), "a rule either allows or denies: write two rules");
            isComplete = true;
            rule.isAllowed = name == "allow";
            rule.actions = readActions(name, value);
        }
        else if (name == "default" || name == "mode")
            fail(lineOf(key), name + " is not part of a rule: write it above the first [[rule]]");
        else
            fail(lineOf(key), "unknown name " + quoted(name) +
                                  " in a rule (there are service, user, group, allow, deny, keys)");
    }
    if (!isComplete)
        fail(lineOf(table), "a rule lacks allow or deny");
    if (mErrors.size() != errorsBefore)
        return;
    if (rule.actions.has(Action::Time) && !(rule.actions == Actions::all()) && !rule.isForEveryName())
        warn(lineOf(table), "the rule never decides on time, which has no name: leave out keys for it");
    rule.who = mCollector.indexOf(std::move(who));
    mCollector.content().rules.push_back(std::move(rule));
}

void FileReader::readQuota(const toml::table& table)
{
    PolicyQuota quota;
    quota.place = placeOf(lineOf(table));
    Who who;
    const std::size_t errorsBefore = mErrors.size();
    constexpr std::size_t million = 1'000'000;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "user")
            readUsers(value, who);
        else if (name == "keys")
            quota.keys = readCount(name, value, million);
        else if (name == "bytes")
            quota.bytes = readBytes(value);
        else if (name == "connections")
            quota.connections = readCount(name, value, million);
        else if (name == "posts-per-second")
            quota.postsPerSecond = readCount(name, value, million);
        else
            fail(lineOf(key), "unknown name " + quoted(name) +
                                  " in a quota (there are user, keys, bytes, connections, posts-per-second)");
    }
    if (mErrors.size() != errorsBefore)
        return;
    if (!quota.keys && !quota.bytes && !quota.connections && !quota.postsPerSecond)
        fail(lineOf(table), "a quota lacks keys, bytes, connections or posts-per-second");
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
                 "a quota without a user is there already, in " + content.quotas[*content.usualQuota].place);
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
                 "user " + std::to_string(user) + " has a quota already, in " + content.quotas[place].place);
            return;
        }
    }
    quota.text = (who.isAnyone() ? "each other user" : who.text) + ": " + quotaText(quota);
    content.quotas.push_back(std::move(quota));
}

void FileReader::readTie(const toml::table& table)
{
    PolicyTie tie;
    tie.place = placeOf(lineOf(table));
    const std::size_t errorsBefore = mErrors.size();
    bool hasKeys = false;
    for (const auto& [key, value] : table)
    {
        const std::string name(key.str());
        if (name == "keys")
        {
            tie.names = readGlobs(value);
            hasKeys = true;
        }
        else if (name == "becomes")
            tie.becomes = readBecomes(value);
        else if (name == "grace")
            tie.grace = readGrace(value);
        else
            fail(lineOf(key), "unknown name " + quoted(name) + " in owned (there are keys, becomes, grace)");
    }
    if (!hasKeys)
        fail(lineOf(table), "owned lacks keys");
    if (mErrors.size() == errorsBefore)
        mCollector.content().ties.push_back(std::move(tie));
}

// ------------------------------------------------------------------------------------------------- values

// A text, or a list of texts.
Words FileReader::readWords(const std::string& name, const toml::node& value)
{
    Words words;
    const auto add = [&](const toml::node& node)
    {
        const auto* text = node.as_string();
        if (text == nullptr)
            fail(lineOf(node), name + " is a text or a list of texts");
        else if (Word word{text->get(), lineOf(node)}; isName(name, word))
            words.push_back(std::move(word));
    };
    if (const toml::array* list = value.as_array(); list == nullptr)
        add(value);
    else if (list->empty())
        fail(lineOf(value), name + " is an empty list");
    else
    {
        for (const toml::node& each : *list)
            add(each);
    }
    return words;
}

bool FileReader::isName(const std::string& name, const Word& word)
{
    if (word.text.empty())
        fail(word.line, name + ": an empty text");
    else if (word.text.size() > PolicyLimits::lineBytes)
        fail(word.line, name + ": longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes");
    else if (hasControl(word.text))
        fail(word.line, name + ": " + quoted(word.text) + " holds a control character");
    else if (mCollector.countName())
        return true;
    else if (mCollector.isFirstBeyondNames())
        fail(word.line, "more than " + std::to_string(PolicyLimits::names) + " names in all files");
    return false;
}

Actions FileReader::readActions(const std::string& name, const toml::node& value)
{
    Actions actions;
    for (const Word& word : readWords(name, value))
    {
        const auto* const place = std::find(actionNames.begin(), actionNames.end(), word.text);
        if (word.text == "all")
            actions.add(Actions::all());
        else if (place != actionNames.end())
            actions.add(static_cast<Action>(place - actionNames.begin()));
        else
            fail(word.line,
                 "unknown action " + quoted(word.text) +
                     " (there are post, reset, event, timer, counter, query, see, time, forget, all)");
    }
    return actions;
}

std::vector<Glob> FileReader::readGlobs(const toml::node& value)
{
    std::vector<Glob> globs;
    for (const Word& word : readWords("keys", value))
    {
        if (const std::string error = Glob::errorIn(word.text); error.empty())
            globs.emplace_back(word.text);
        else
            fail(word.line, "keys: " + quoted(word.text) + ": " + error);
    }
    return globs;
}

void FileReader::readServices(const toml::node& value, Who& who)
{
    for (const Word& word : readWords("service", value))
    {
        if (std::string error = errorInService(word.text); error.empty())
            who.services.push_back(unitName(word.text));
        else
            fail(word.line, std::move(error));
    }
    who.namesServices = true;
    addTo(who.text, "service " + joined(who.services, " or "));
}

void FileReader::readUsers(const toml::node& value, Who& who)
{
    who.namesUsers = true;
    readIds("user", value, who, who.users, &Collector::user);
}

void FileReader::readGroups(const toml::node& value, Who& who)
{
    who.namesGroups = true;
    readIds("group", value, who, who.groups, &Collector::group);
}

// Names, or numbers where a device has no names.
template <typename Id>
void FileReader::readIds(const std::string& kind, const toml::node& value, Who& who, std::vector<Id>& ids,
                         std::optional<Id> (Collector::*lookUp)(const std::string&))
{
    std::vector<std::string> texts;
    const auto addNumber = [&](const toml::node& node)
    {
        constexpr int64_t most = std::numeric_limits<Id>::max() - 1; // the highest means that there is none
        const int64_t number = node.as_integer()->get();
        if (number < 0 || number > most)
            fail(lineOf(node), kind + ": " + std::to_string(number) + " is not the number of a " + kind);
        else
            ids.push_back(static_cast<Id>(number));
        texts.push_back(std::to_string(number));
    };
    const auto addNames = [&](const toml::node& node)
    {
        for (const Word& word : readWords(kind, node))
        {
            if (const auto id = (mCollector.*lookUp)(word.text))
                ids.push_back(*id);
            else
                warn(word.line, "unknown " + kind + " " + quoted(word.text) + ": no client matches it");
            texts.push_back(word.text);
        }
    };
    const auto add = [&](const toml::node& node) { node.is_integer() ? addNumber(node) : addNames(node); };
    const toml::array* list = value.as_array();
    if (list == nullptr || list->empty())
        add(value);
    else
    {
        for (const toml::node& each : *list)
            add(each);
    }
    addTo(who.text, kind + " " + joined(texts, " or "));
}

std::optional<std::size_t> FileReader::readCount(const std::string& name, const toml::node& value,
                                                 std::size_t most)
{
    const auto* number = value.as_integer();
    if (number != nullptr && number->get() >= 1 && number->get() <= static_cast<int64_t>(most))
        return static_cast<std::size_t>(number->get());
    fail(lineOf(value), name + " is a number in 1.." + std::to_string(most));
    return std::nullopt;
}

std::optional<std::size_t> FileReader::readBytes(const toml::node& value)
{
    constexpr std::size_t most = std::size_t{1024} * OptionText::mebi;
    std::optional<uint64_t> size;
    if (const auto* text = value.as_string(); text != nullptr)
        size = OptionText::readSize(text->get());
    else if (const auto* number = value.as_integer(); number != nullptr && number->get() > 0)
        size = static_cast<uint64_t>(number->get());
    if (size && *size >= 1 && *size <= most)
        return static_cast<std::size_t>(*size);
    fail(lineOf(value), R"(bytes is a size in 1..1024M, such as 65536 or "64K")");
    return std::nullopt;
}

std::string FileReader::readBecomes(const toml::node& value)
{
    const auto* text = value.as_string();
    if (text == nullptr)
        fail(lineOf(value), "becomes is a text");
    else if (text->get().size() > PolicyLimits::lineBytes)
        fail(lineOf(value), "becomes: longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes");
    else if (hasControl(text->get()))
        fail(lineOf(value), "becomes: " + quoted(text->get()) + " holds a control character");
    else
        return text->get();
    return {};
}

std::chrono::milliseconds FileReader::readGrace(const toml::node& value)
{
    const auto* text = value.as_string();
    if (const auto duration = text == nullptr ? std::nullopt : readDuration(text->get()))
        return *duration;
    fail(lineOf(value), R"(grace is a duration of at most an hour, such as "500ms", "2s" or "1m")");
    return PolicyTie::usualGrace;
}

} // namespace

PolicyContent readPolicy(const std::vector<PolicySource>& sources, const PolicyNames& names,
                         std::vector<std::string>& errors)
{
    Collector collector(names, errors);
    for (const PolicySource& source : sources)
        FileReader(source, collector).read();
    return collector.finished();
}
