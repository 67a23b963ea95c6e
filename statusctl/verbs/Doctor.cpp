// doctor: finds problems and their remedies.

#include <algorithm>
#include <iterator>

#include "protocol/Words.h"
#include "statusctl/device/Device.h"
#include "statusctl/health/Diagnosis.h"
#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Verb.h"

namespace
{

using Diagnosis::Findings;

class Doctor : public IVerb
{
public:
    explicit Doctor(CLI::App& app)
    {
        Verbs::describe(
            app, "doctor", "Find problems, and say what to do about them",
            "statusctl doctor\n"
            "sudo statusctl doctor\n"
            "statusctl doctor --json",
            "Checks which program listens on the broker's ports: a broker, a hanging or stopped broker, or\n"
            "another program. Then it checks the broker's version, its answer time, and all that it lost,\n"
            "refused or could not read since it started. Exits with 1 if it finds a problem, with 4 without\n"
            "a broker. Only root sees which programs of other users listen on the ports.");
    }

    ExitCode run(const Settings& settings) override
    {
        const Findings ofPorts = Diagnosis::ofPorts(answers(settings));
        if (!ofPorts.empty())
        {
            print(settings, ofPorts);
            return ExitCode::Unreachable;
        }
        Findings findings = ofBroker(settings);
        print(settings, findings);
        return findings.empty() ? ExitCode::Done : ExitCode::Failed;
    }

private:
    static std::vector<Diagnosis::Answer> answers(const Settings& settings)
    {
        constexpr std::chrono::milliseconds patience{1000};
        std::vector<Diagnosis::Answer> answers;
        answers.reserve(Ports::all.size());
        for (const Ports::Port& port : Ports::all)
            answers.push_back(
                {port, Listeners::on(port.number),
                 Ports::socketType(port.number, std::min(patience, settings.requestTimeout()))});
        return answers;
    }

    static Findings ofBroker(const Settings& settings)
    {
        constexpr unsigned trips = 20;
        Findings findings;
        try
        {
            const BrokerProtocol::Statistics numbers = Inquiry::statistics(settings);
            findings = Diagnosis::ofStatistics(numbers, STATUSCTL_VERSION);
            const auto denied = numbers.find(BrokerProtocol::Number::policyDenied);
            if (denied != numbers.end() && denied->second != 0)
                add(Diagnosis::ofRefused(Inquiry::clients(settings)), findings);
        }
        catch (const Failure& failure)
        {
            if (failure.code() != ExitCode::BadReply)
                throw;
            findings.push_back({"statistics", failure.what(),
                                "if the broker was upgraded, restart it; install both from one release"});
        }
        Device device(settings);
        add(Diagnosis::ofRoundTrips(RoundTrips::measure(device, trips)), findings);
        return findings;
    }

    static void add(Findings more, Findings& findings)
    {
        std::move(more.begin(), more.end(), std::back_inserter(findings));
    }

    static void print(const Settings& settings, const Findings& findings)
    {
        Output output(settings);
        if (settings.isJson())
            return output.json(toJson(findings));
        for (const Diagnosis::Finding& finding : findings)
        {
            output.line(output.colored("problem: ", Output::Color::Red) + Text::escaped(finding.problem));
            output.line("     do: " + Text::escaped(finding.remedy));
        }
        if (findings.empty() && !settings.quiet)
            output.line("all is well");
    }

    static Json::Value toJson(const Findings& findings)
    {
        Json::Value list(Json::arrayValue);
        for (const Diagnosis::Finding& finding : findings)
        {
            Json::Value object(Json::objectValue);
            object["check"] = finding.check;
            object["problem"] = Text::valid(finding.problem);
            object["remedy"] = Text::valid(finding.remedy);
            list.append(object);
        }
        Json::Value root(Json::objectValue);
        root["findings"] = list;
        return root;
    }
};

} // namespace

std::unique_ptr<IVerb> Verbs::addDoctor(CLI::App& app)
{
    return std::make_unique<Doctor>(app);
}
