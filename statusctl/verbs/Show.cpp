// show: prints all details of keys.

#include <algorithm>

#include "statusctl/device/Device.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

class Show : public IVerb
{
public:
    explicit Show(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(
            app, "show", "Print everything that the broker knows of keys",
            "statusctl show door\nstatusctl show 'net.*'",
            "Prints for each key: the value; the times of the last post and of the last change; the numbers\n"
            "of posts and of changes; the client that posted last, and the client that changed the value\n"
            "last if it is another. The kernel vouches for service and user, but not for process and\n"
            "program. A post of the same value counts as a post, not as a change.");
        command.add_option("KEY", mKeys, "Keys and globs. Exit code 3 if a key does not exist")->required();
        command.callback([this] { Names::checkFilled(mKeys); });
    }

    ExitCode run(const Settings& settings) override
    {
        const Pattern pattern(mKeys);
        const Details::ByKey details = Details::of(settings, keysOf(settings, pattern));
        Output output(settings);
        if (settings.isJson())
            output.json(DetailsText::toJson(details));
        else
            print(output, details);
        checkAllThere(details);
        return ExitCode::Done;
    }

private:
    static StatusKeys keysOf(const Settings& settings, const Pattern& pattern)
    {
        StatusKeys keys(pattern.exact().begin(), pattern.exact().end());
        if (!pattern.hasGlobs())
            return keys;
        Device device(settings);
        for (const auto& [key, value] :
             device.ask([](StatusManager& manager) { return manager.getClientInfo(); }))
        {
            if (!pattern.isExact(key) && pattern.matchesGlob(key))
                keys.push_back(key);
        }
        return keys;
    }

    static void print(Output& output, const Details::ByKey& details)
    {
        const Timestamp::Time now = Timestamp::now();
        for (const auto& [key, of] : details)
            DetailsText::print(output, key, of, now);
    }

    void checkAllThere(const Details::ByKey& details) const
    {
        Names::List missing;
        for (const std::string& key : mKeys)
        {
            const Pattern pattern({key});
            if (std::none_of(details.begin(), details.end(),
                             [&](const auto& of) { return pattern.matches(of.first); }))
                missing.push_back(key);
        }
        if (!missing.empty())
            throw Failure(ExitCode::NotFound, "no value for " + Names::inQuotes(missing));
    }

    std::vector<std::string> mKeys;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addShow(CLI::App& app)
{
    return std::make_unique<Show>(app);
}
