#include <algorithm>

#include "statusctl/health/Inquiry.h"
#include "statusctl/health/OpenMetrics.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Verb.h"

namespace
{

using BrokerProtocol::Statistics;

class Stats : public IVerb
{
public:
    explicit Stats(CLI::App& app)
    {
        CLI::App& command =
            Verbs::describe(app, "stats", "Print what the broker counts about itself",
                            "statusctl stats\n"
                            "statusctl stats --openmetrics > /var/lib/node_exporter/status.prom");
        command.add_flag("--openmetrics", mOpenMetrics, "In the text format that monitoring systems read");
    }

    ExitCode run(const Settings& settings) override
    {
        const Statistics statistics = Inquiry::statistics(settings);
        Output output(settings);
        if (mOpenMetrics)
            output.line(OpenMetrics::write(statistics));
        else if (settings.isJson())
            output.json(toJson(statistics));
        else
            printTable(output, statistics);
        return ExitCode::Done;
    }

private:
    static Json::Value toJson(const Statistics& statistics)
    {
        Json::Value object(Json::objectValue);
        for (const auto& [name, number] : statistics)
            object[Text::valid(name)] = static_cast<Json::UInt64>(number);
        return object;
    }

    static void printTable(Output& output, const Statistics& statistics)
    {
        std::size_t width = 0;
        for (const auto& [name, number] : statistics)
            width = std::max(width, Text::escapedName(name).size());
        for (const auto& [name, number] : statistics)
            output.line(row(Text::escapedName(name), width, std::to_string(number)));
    }

    static std::string row(const std::string& name, std::size_t width, const std::string& number)
    {
        constexpr std::size_t digits = 14;
        const std::string blanks(width - name.size() + digits - std::min(digits, number.size()), ' ');
        return name + blanks + number;
    }

    bool mOpenMetrics = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addStats(CLI::App& app)
{
    return std::make_unique<Stats>(app);
}
