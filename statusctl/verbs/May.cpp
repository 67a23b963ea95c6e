#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

class May : public IVerb
{
public:
    explicit May(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(
            app, "may", "Print whether the policy allows an action, and why",
            "statusctl may web post net.up\n"
            "statusctl may net.service reset wifi.state\n"
            "statusctl may web:web.service see net.password\n"
            "statusctl may clock:clock.service time",
            "CLIENT is the name or number of a user, the name of a service, or both as USER:SERVICE. A\n"
            "service alone has no user, so rules for users do not apply to it. ACTION is post, reset,\n"
            "event, timer, counter, query, see, time or forget. Exits with 0 if the policy allows the\n"
            "action, otherwise with 1. The policy is the one in force in the broker.");
        command.add_option("CLIENT", mClient, "The client")->required();
        command.add_option("ACTION", mAction, "The action")->required();
        const CLI::Option* name = command.add_option("NAME", mName, "The key, event, timer or counter");
        Names::addLiteral(command, "NAME", mIsLiteral);
        command.callback(
            [this, name]
            {
                if (name->count() != 0)
                    Names::checkExact({mName}, mIsLiteral);
            });
    }

    ExitCode run(const Settings& settings) override
    {
        const Inquiry::Decision decision = Inquiry::decision(settings, mClient, mAction, mName);
        Output output(settings);
        if (settings.isJson())
        {
            Json::Value object(Json::objectValue);
            object["allowed"] = decision.isAllowed;
            object["reason"] = Text::valid(decision.reason);
            output.json(object);
        }
        else
            output.line(Text::escaped(decision.reason));
        return decision.isAllowed ? ExitCode::Done : ExitCode::Failed;
    }

private:
    std::string mClient;
    std::string mAction;
    std::string mName;
    bool mIsLiteral = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addMay(CLI::App& app)
{
    return std::make_unique<May>(app);
}
