#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "statusctl/device/Device.h"
#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Verb.h"

namespace
{

using Names = std::vector<std::string>;

bool has(const Names& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

class Forget : public IVerb
{
public:
    explicit Forget(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "forget", "Remove names for good",
                                            "statusctl forget old.door\n"
                                            "statusctl forget 'old.*'\n"
                                            "statusctl forget --literal 'odd[name]'\n"
                                            "statusctl forget --timer boot\n"
                                            "statusctl forget --counter restarts",
                                            "Listeners are told of a forgotten value as of a reset. Exits "
                                            "with 1 if a name was not there, or\n"
                                            "the policy denies it; the others are gone then.");
        command.add_option("KEY", mNames, "Keys and globs of keys; names of timers or counters are exact")
            ->required();
        CLI::Option* timer = command.add_flag("--timer", mIsTimer, "Forget timers instead");
        command.add_flag("--counter", mIsCounter, "Forget counters instead")->excludes(timer);
        command.add_flag("--literal", mIsLiteral, "Take each KEY for a name, whatever letters are in it");
    }

    ExitCode run(const Settings& settings) override
    {
        Names missing;
        const Names wanted = mIsLiteral || mIsTimer || mIsCounter ? distinct() : expanded(settings, missing);
        const Names gone = Inquiry::forget(settings, kind(), wanted);
        const std::set<std::string> isGone(gone.begin(), gone.end());
        for (const std::string& name : wanted)
        {
            if (isGone.count(Text::valid(name)) == 0)
                missing.push_back(name);
        }
        if (settings.isJson())
            print(settings, gone);
        if (!missing.empty())
            throw Failure(ExitCode::Failed, "not there, or denied by the policy: " + inQuotes(missing));
        return ExitCode::Done;
    }

private:
    Inquiry::Kind kind() const
    {
        if (mIsTimer)
            return Inquiry::Kind::Timers;
        return mIsCounter ? Inquiry::Kind::Counters : Inquiry::Kind::Values;
    }

    Names distinct() const { return Pattern::ofNames(mNames).exact(); }

    // The keys that are named, and those that match. A glob that matches nothing is missing.
    Names expanded(const Settings& settings, Names& missing) const
    {
        Names keys = Pattern(mNames).exact();
        Names globs;
        for (const std::string& name : distinct())
        {
            if (!has(keys, name))
                globs.push_back(name);
        }
        if (globs.empty())
            return keys;
        Device device(settings);
        const StatusMap values = device.ask([](StatusManager& manager) { return manager.getClientInfo(); });
        for (const std::string& glob : globs)
        {
            const std::size_t matches = addMatches(Pattern({glob}), values, keys);
            if (matches == 0)
                missing.push_back(glob);
        }
        std::set<std::string> seen; // a key may match several
        const auto isKnown = [&](const std::string& key) { return !seen.insert(key).second; };
        keys.erase(std::remove_if(keys.begin(), keys.end(), isKnown), keys.end());
        return keys;
    }

    static std::size_t addMatches(const Pattern& pattern, const StatusMap& values, Names& keys)
    {
        std::size_t matches = 0;
        for (const auto& [key, value] : values)
        {
            if (!pattern.matches(key))
                continue;
            ++matches;
            keys.push_back(key);
        }
        return matches;
    }

    static void print(const Settings& settings, const Names& gone)
    {
        Json::Value object(Json::objectValue);
        object["forgotten"] = Json::Value(Json::arrayValue);
        for (const std::string& name : gone)
            object["forgotten"].append(name);
        Output(settings).json(object);
    }

    static std::string inQuotes(const Names& names)
    {
        std::string text;
        for (const std::string& name : names)
            text += (text.empty() ? "\"" : ", \"") + name + "\"";
        return text;
    }

    Names mNames;
    bool mIsTimer = false;
    bool mIsCounter = false;
    bool mIsLiteral = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addForget(CLI::App& app)
{
    return std::make_unique<Forget>(app);
}
