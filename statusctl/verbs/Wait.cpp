#include <algorithm>
#include <regex.h>
#include <vector>

#include "statusctl/device/Device.h"
#include "statusctl/device/Feed.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Verb.h"

namespace
{

/// A POSIX extended regular expression.
class Regex
{
public:
    explicit Regex(const std::string& text)
    {
        const int error = regcomp(&mCompiled, text.c_str(), REG_EXTENDED | REG_NOSUB);
        if (error == 0)
            return;
        std::array<char, 200> reason{};
        regerror(error, &mCompiled, reason.data(), reason.size());
        throw CLI::ValidationError("--match", std::string(reason.data()));
    }
    ~Regex() { regfree(&mCompiled); }

    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    bool matches(const std::string& text) const
    {
        return regexec(&mCompiled, text.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t mCompiled{};
};

struct Condition
{
    enum class Kind
    {
        Filled,
        Equal,
        NotEqual,
    };

    std::string key;
    Kind kind = Kind::Filled;
    std::string wanted;

    static Condition read(const std::string& text)
    {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos)
            return {text, Kind::Filled, {}};
        const bool isNegated = equals > 0 && text[equals - 1] == '!';
        return {text.substr(0, equals - (isNegated ? 1 : 0)), isNegated ? Kind::NotEqual : Kind::Equal,
                text.substr(equals + 1)};
    }

    bool holds(const std::string& value) const
    {
        return kind == Kind::Filled ? !value.empty() : (value == wanted) == (kind == Kind::Equal);
    }
};

class Wait : public IVerb
{
public:
    explicit Wait(CLI::App& app)
    {
        CLI::App& command =
            Verbs::describe(app, "wait", "Wait until values are as they should be, and print them",
                            "statusctl wait door=closed\n"
                            "statusctl -t 30 wait 'door!=open' lamp=off\n"
                            "statusctl wait --any a=1 b=1\n"
                            "statusctl wait version --match '^2\\.'");
        command
            .add_option(
                "KEY", mTexts,
                "KEY (has a value that is not empty), KEY=VALUE, or KEY!=VALUE (is there, with another "
                "value). All must hold at the same time. At once if they do already")
            ->required();
        command
            .add_option("--match", mRegex,
                        "The values must also match this POSIX extended regular expression")
            ->type_name("REGEX");
        command.add_flag("--any", mAny, "One of them is enough");
        command.callback([this] { prepare(); });
    }

    // To look first and then wait for a change could miss one in between. The feed tells both in one.
    ExitCode run(const Settings& settings) override
    {
        std::vector<std::string> keys;
        for (const Condition& condition : mConditions)
            keys.push_back(condition.key);
        Device device(settings);
        Feed feed(device, Pattern::ofNames(keys), Pattern(),
                  [this](const Change& change) { return isMissing(change); });
        feed.start();
        if (!feed.wait(settings.timeout))
            throw Failure(ExitCode::TimedOut, "the time is over");
        print(settings);
        return ExitCode::Done;
    }

private:
    void prepare()
    {
        for (const std::string& text : mTexts)
        {
            mConditions.push_back(Condition::read(text));
            if (mConditions.back().key.empty())
                throw CLI::ValidationError("\"" + text + "\" names no key");
        }
        if (mRegex)
            mMatch.emplace(*mRegex);
    }

    bool isMissing(const Change& change)
    {
        if (change.kind == Change::Kind::Synced)
            mIsSynced = true;
        else
            mValues[change.name] = change.value;
        if (!mIsSynced)
            return true;
        mHolding.clear();
        for (const Condition& condition : mConditions)
        {
            const auto value = mValues.find(condition.key);
            if (value != mValues.end() && condition.holds(value->second) &&
                (!mMatch || mMatch->matches(value->second)))
                mHolding.push_back(condition.key);
        }
        return mAny ? mHolding.empty() : mHolding.size() < mConditions.size();
    }

    void print(const Settings& settings) const
    {
        Output output(settings);
        StatusMap holding;
        for (const std::string& key : mHolding)
            holding[key] = mValues.at(key);
        if (mConditions.size() > 1 || settings.isJson())
            output.values(holding);
        else
            output.line(Text::escaped(holding.begin()->second));
    }

    std::vector<std::string> mTexts;
    std::optional<std::string> mRegex;
    bool mAny = false;
    std::vector<Condition> mConditions;
    std::optional<Regex> mMatch;

    // The feed's thread, until the feed has ended.
    bool mIsSynced = false;
    StatusMap mValues;
    std::vector<std::string> mHolding;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addWait(CLI::App& app)
{
    return std::make_unique<Wait>(app);
}
