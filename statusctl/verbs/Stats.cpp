#include <algorithm>

#include "statusctl/device/Device.h"
#include "statusctl/health/Inquiry.h"
#include "statusctl/health/Metrics.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/OutputFile.h"
#include "statusctl/text/Pattern.h"
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
        CLI::App& command = Verbs::describe(
            app, "stats", "Print the broker's statistics",
            "statusctl stats\n"
            "statusctl stats --prometheus --output /run/metrics/status.prom\n"
            "statusctl stats --prometheus --values 'net.*' --values 'disk.*'",
            "For monitoring systems there are the text format 0.0.4, which Prometheus and node_exporter's\n"
            "textfile collector read, and OpenMetrics 1.0. --values exports values of the device that are\n"
            "decimal numbers, as statusbroker_value{key=\"net.speed\"}: the first 1000, sorted by key.");
        CLI::Option* prometheus =
            command.add_flag("--prometheus", mPrometheus, "Print the text format that Prometheus reads");
        command.add_flag("--openmetrics", mOpenMetrics, "Print OpenMetrics")->excludes(prometheus);
        command
            .add_option("--values", mValues,
                        "Also export the device's values whose keys match; may be given several times")
            ->type_name("GLOB")
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        command
            .add_option("--output", mFile,
                        "Write to this file; it is renamed when complete, so no reader sees a part")
            ->type_name("FILE")
            ->check(CLI::Validator(checkFile, ""));
    }

    ExitCode run(const Settings& settings) override
    {
        const bool isMetrics = mPrometheus || mOpenMetrics;
        if (!mValues.empty() && !isMetrics)
            throw Failure(ExitCode::WrongUsage, "--values needs --prometheus or --openmetrics");
        const Statistics statistics = Inquiry::statistics(settings);
        std::string text;
        if (isMetrics)
            text = Metrics::write(mPrometheus ? Metrics::Format::Prometheus : Metrics::Format::OpenMetrics,
                                  statistics, values(settings));
        else if (settings.isJson())
            text = JsonText::write(toJson(statistics), settings.json);
        else
            text = table(statistics);
        if (mFile.empty() || mFile == "-")
            Output(settings).line(text);
        else
            OutputFile::replace(mFile, text + '\n');
        return ExitCode::Done;
    }

private:
    // An empty name is a mistake, such as an unset variable.
    static std::string checkFile(const std::string& name)
    {
        return name.empty() ? "a file name must not be empty" : "";
    }

    std::optional<StatusMap> values(const Settings& settings) const
    {
        if (mValues.empty())
            return std::nullopt;
        Device device(settings);
        return Pattern(mValues).matching(
            device.ask([](StatusManager& manager) { return manager.getClientInfo(); }));
    }

    static Json::Value toJson(const Statistics& statistics)
    {
        Json::Value object(Json::objectValue);
        for (const auto& [name, number] : statistics)
            object[Text::valid(name)] = static_cast<Json::UInt64>(number);
        return object;
    }

    static std::string table(const Statistics& statistics)
    {
        std::size_t width = 0;
        for (const auto& [name, number] : statistics)
            width = std::max(width, Text::escapedName(name).size());
        std::string text;
        for (const auto& [name, number] : statistics)
            text += (text.empty() ? "" : "\n") + row(Text::escapedName(name), width, std::to_string(number));
        return text;
    }

    static std::string row(const std::string& name, std::size_t width, const std::string& number)
    {
        constexpr std::size_t digits = 14;
        const std::string blanks(width - name.size() + digits - std::min(digits, number.size()), ' ');
        return name + blanks + number;
    }

    bool mPrometheus = false;
    bool mOpenMetrics = false;
    std::vector<std::string> mValues;
    std::string mFile;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addStats(CLI::App& app)
{
    return std::make_unique<Stats>(app);
}
