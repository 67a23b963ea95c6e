#include <mutex>
#include <regex.h>
#include <vector>

#include "statusctl/device/Feed.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Condition.h"
#include "statusctl/verbs/Following.h"
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

class Wait : public IVerb
{
public:
    explicit Wait(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "wait", "Wait until values meet conditions, and print them",
                                            "statusctl wait door=closed\n"
                                            "statusctl -t 30 wait 'door!=open' lamp=off\n"
                                            "statusctl wait 'battery>=20' 'update.state exists'\n"
                                            "statusctl wait --any a=1 b=1\n"
                                            "statusctl wait version --match '^2\\.'");
        command
            .add_option("KEY", mTexts,
                        "KEY (has a value that is not empty), \"KEY exists\" (perhaps with an empty value), "
                        "KEY=VALUE, KEY!=VALUE (exists, with another value), "
                        "or KEY<VALUE, KEY<=VALUE, KEY>VALUE, KEY>=VALUE (both are numbers). "
                        "All must hold at the same time; if they already do, it returns at once")
            ->required();
        command
            .add_option("--match", mRegex,
                        "The values must also match this POSIX extended regular expression")
            ->type_name("REGEX");
        command.add_flag("--any", mAny, "One condition is enough");
        command.add_flag("--literal", mIsLiteral,
                         "Allow blanks and glob characters in KEY, and operators at the beginning of VALUE");
        mFollowing.emplace(command);
        command.callback([this] { prepare(); });
    }

    // A look followed by a wait could miss a change in between. The feed does both in one.
    ExitCode run(const Settings& settings) override
    {
        std::vector<std::string> keys;
        for (const Condition& condition : mConditions)
            keys.push_back(condition.key());
        Device device = mFollowing->connect(settings);
        Feed feed(device, Pattern::ofNames(keys), Pattern(),
                  [this](const Change& change) { return isMissing(change); });
        feed.start();
        if (!feed.wait(settings.timeout))
            throw Following::timedOut(settings, whyNot());
        print(settings);
        return ExitCode::Done;
    }

private:
    void prepare()
    {
        for (std::size_t index = 0; index < mTexts.size(); ++index)
        {
            std::string text = mTexts[index];
            if (index > 0 && Condition::hasNoKey(text))
                failForBlanks(index);
            if (index + 1 < mTexts.size() && mTexts[index + 1] == "exists")
                text += " " + mTexts[++index];
            mConditions.push_back(Condition::read(text, mIsLiteral));
        }
        if (mRegex)
            mMatch.emplace(*mRegex);
    }

    // For example: door = open
    [[noreturn]] void failForBlanks(std::size_t index) const
    {
        const std::string& text = mTexts[index];
        const bool isCut = text.find_first_not_of("=<>!") == std::string::npos && index + 1 < mTexts.size();
        throw CLI::ValidationError("missing key in \"" + text + "\"; write \"" + mTexts[index - 1] + text +
                                   (isCut ? mTexts[index + 1] : "") + "\", without blanks");
    }

    bool isMissing(const Change& change)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (isMark(change.kind))
            mIsSynced = change.kind == Change::Kind::Synced;
        else if (change.kind == Change::Kind::Gone)
            mValues.erase(change.name);
        else
            mValues[change.name] = change.value;
        if (!mIsSynced) // lost values say nothing about the present
            return true;
        mHolding.clear();
        for (const Condition& condition : mConditions)
        {
            if (holds(condition))
                mHolding.push_back(condition.key());
        }
        return mAny ? mHolding.empty() : mHolding.size() < mConditions.size();
    }

    bool holds(const Condition& condition) const
    {
        const Condition::Value value = valueOf(condition.key());
        return condition.holds(value) && (!mMatch || mMatch->matches(*value));
    }

    Condition::Value valueOf(const std::string& key) const
    {
        const auto value = mValues.find(key);
        return value == mValues.end() ? std::nullopt : Condition::Value(value->second);
    }

    // For example: door is "open", wanted "shut"; lamp is missing, wanted "on"
    std::string whyNot()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (!mIsSynced)
            return "no values from the broker";
        std::string text;
        for (const Condition& condition : mConditions)
        {
            if (holds(condition))
                continue;
            const Condition::Value value = valueOf(condition.key());
            const bool isMatchMissing = condition.holds(value);
            text += (text.empty() ? "" : "; ") + condition.key() + " is " +
                    (value ? "\"" + Text::cutOff(*value) + "\"" : "missing") + ", wanted " +
                    (isMatchMissing ? "a match of \"" + *mRegex + "\"" : condition.wanted());
        }
        return text;
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
    std::optional<Following> mFollowing;
    bool mAny = false;
    bool mIsLiteral = false;
    std::vector<Condition> mConditions;
    std::optional<Regex> mMatch;

    // Shared with the feed's thread, under the mutex.
    std::mutex mMutex;
    bool mIsSynced = false;
    StatusMap mValues;
    std::vector<std::string> mHolding;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addWait(CLI::App& app)
{
    return std::make_unique<Wait>(app);
}
