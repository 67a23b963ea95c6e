#include "statusctl/health/OpenMetrics.h"

#include <map>
#include <set>

#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Text.h"

using BrokerProtocol::Statistics;

namespace
{

bool isIn(char letter, char first, char last)
{
    return letter >= first && letter <= last;
}

// "loop.maxMicroseconds" becomes "statusbroker_loop_max_microseconds". Nothing else may be in a metric's
// name.
std::string metricOf(const std::string& name)
{
    std::string result = "statusbroker_";
    for (const char letter : name)
    {
        if (isIn(letter, 'A', 'Z'))
            result.append({'_', static_cast<char>(letter - 'A' + 'a')});
        else
            result += isIn(letter, 'a', 'z') || isIn(letter, '0', '9') ? letter : '_';
    }
    return result;
}

// {request="sync"}. Escaped as text first: some readers take more than a line feed for the end of a line.
std::string labelOf(const std::string& label, const std::string& name)
{
    std::string value;
    for (const char letter : Text::escaped(name))
        value.append(letter == '"' || letter == '\\' ? "\\" : "").append(1, letter);
    return "{" + label + "=\"" + value + "\"}";
}

// The others go up and down, or are the most so far.
bool isCounter(const std::string& name)
{
    namespace Number = BrokerProtocol::Number;
    static const std::set<std::string> counters{Number::posts,        Number::published, Number::missedEvents,
                                                Number::fallenBehind, Number::commits,   Number::stateErrors};
    return counters.count(name) != 0;
}

/// Collects the samples: those of one family must stand together, wherever their numbers come from.
class Families
{
public:
    void add(const std::string& name, uint64_t number)
    {
        const std::size_t dot = name.find('.');
        const std::string group = name.substr(0, dot);
        if (group == "version")
            return;
        if (group == "requests")
            addCounter("requests", labelOf("request", name.substr(dot + 1)), number);
        else if (group == "limit" || group == "malformed" || group == "refused")
            addCounter("refused", labelOf("reason", name), number);
        else if (isCounter(name))
            addCounter(name, {}, number);
        else
            addSample(metricOf(name), "gauge", metricOf(name), {}, number);
    }

    void addVersion(const std::string& version)
    {
        addSample("statusbroker_build", "info", "statusbroker_build_info", labelOf("version", version), 1);
    }

    std::string text() const
    {
        std::string text;
        for (const auto& [name, family] : mFamilies)
        {
            text += "# TYPE " + name + " " + family.type + "\n";
            for (const auto& [sample, number] : family.samples)
                text += sample + " " + std::to_string(number) + "\n";
        }
        return text + "# EOF";
    }

private:
    struct Family
    {
        std::string type;
        std::map<std::string, uint64_t> samples; // by metric and label
    };

    void addCounter(const std::string& name, const std::string& label, uint64_t number)
    {
        addSample(metricOf(name), "counter", metricOf(name) + "_total", label, number);
    }

    // Different names may become the same metric. The first has it; readers refuse a text in which it is
    // there again, or in two families.
    void addSample(const std::string& family, const std::string& type, const std::string& metric,
                   const std::string& label, uint64_t number)
    {
        if (mOwners.emplace(metric, family).first->second != family)
            return;
        Family& entry = mFamilies.try_emplace(family, Family{type, {}}).first->second;
        if (entry.type == type)
            entry.samples.emplace(metric + label, number);
    }

    std::map<std::string, Family> mFamilies;
    std::map<std::string, std::string> mOwners; // the family of each metric
};

} // namespace

std::string OpenMetrics::write(const Statistics& statistics)
{
    Families families;
    families.addVersion(Inquiry::versionIn(statistics));
    for (const auto& [name, number] : statistics)
        families.add(name, number);
    return families.text();
}
