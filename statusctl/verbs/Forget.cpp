#include <set>
#include <string>
#include <vector>

#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

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
                                            "Listeners see a forgotten value as a reset. Exits with 1 if a\n"
                                            "name does not exist or the policy denies it; the other names\n"
                                            "are gone then.");
        command.add_option("KEY", mNames, "Keys and globs of keys, or exact names of timers or counters")
            ->required();
        CLI::Option* timer = command.add_flag("--timer", mIsTimer, "Forget timers instead");
        command.add_flag("--counter", mIsCounter, "Forget counters instead")->excludes(timer);
        Names::addLiteral(command, "KEY", mIsLiteral);
        command.callback([this] { checkNames(); });
    }

    ExitCode run(const Settings& settings) override
    {
        Names::Resolved names = Names::resolve(settings, mNames, mIsLiteral || hasNoGlobs());
        const Names::List wanted = Pattern::ofNames(names.keys).exact(); // removes duplicates
        const Names::List gone = Inquiry::forget(settings, kind(), wanted);
        Names::List& missing = names.unmatched;
        const std::set<std::string> isGone(gone.begin(), gone.end());
        for (const std::string& name : wanted)
        {
            if (isGone.count(Text::valid(name)) == 0)
                missing.push_back(name);
        }
        if (settings.isJson())
            print(settings, gone);
        if (!missing.empty())
            throw Failure(ExitCode::Failed,
                          "not found, or denied by the policy: " + Names::inQuotes(missing));
        return ExitCode::Done;
    }

private:
    // With --literal an empty name can be removed as well: other programs can create one.
    void checkNames() const
    {
        if (mIsLiteral)
            return;
        if (hasNoGlobs())
            Names::checkExact(mNames, false);
        else
            Names::checkFilled(mNames);
    }

    bool hasNoGlobs() const { return mIsTimer || mIsCounter; }

    Inquiry::Kind kind() const
    {
        if (mIsTimer)
            return Inquiry::Kind::Timers;
        return mIsCounter ? Inquiry::Kind::Counters : Inquiry::Kind::Values;
    }

    static void print(const Settings& settings, const Names::List& gone)
    {
        Json::Value object(Json::objectValue);
        object["forgotten"] = Json::Value(Json::arrayValue);
        for (const std::string& name : gone)
            object["forgotten"].append(name);
        Output(settings).json(object);
    }

    Names::List mNames;
    bool mIsTimer = false;
    bool mIsCounter = false;
    bool mIsLiteral = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addForget(CLI::App& app)
{
    return std::make_unique<Forget>(app);
}
