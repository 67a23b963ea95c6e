#include "statusctl/health/OpenMetrics.h"

#include "statusctl/health/Inquiry.h"

#include <cctype>
#include <map>
#include <set>

using BrokerProtocol::Statistics;

namespace
{

// "loop.maxMicroseconds" becomes "statusbroker_loop_max_microseconds".
std::string metricOf(const std::string& name)
{
    std::string result = "statusbroker_";
    for (const char letter : name)
    {
        if (std::isupper(static_cast<unsigned char>(letter)) != 0)
            result += '_';
        result += letter == '.' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return result;
}

// The others go up and down, or are the most so far.
bool isCounter(const std::string& name)
{
    static const std::set<std::string> counters{"posts",         "notifications.published",
                                                "state.commits", "notifications.lost",
                                                "state.errors",  "subscribers.cutOff"};
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
            addCounter("requests", "{request=\"" + name.substr(dot + 1) + "\"}", number);
        else if (group == "limit" || group == "malformed" || group == "refused")
            addCounter("refused", "{reason=\"" + name + "\"}", number);
        else if (isCounter(name))
            addCounter(name, {}, number);
        else
            addSample(metricOf(name), "gauge", metricOf(name) + " " + std::to_string(number));
    }

    void addVersion(const std::string& version)
    {
        addSample("statusbroker_build", "info", "statusbroker_build_info{version=\"" + version + "\"} 1");
    }

    std::string text() const
    {
        std::string text;
        for (const auto& [name, samples] : mFamilies)
            text += samples;
        return text + "# EOF";
    }

private:
    void addCounter(const std::string& name, const std::string& label, uint64_t number)
    {
        addSample(metricOf(name), "counter",
                  metricOf(name) + "_total" + label + " " + std::to_string(number));
    }

    void addSample(const std::string& family, const std::string& type, const std::string& sample)
    {
        std::string& samples = mFamilies[family];
        if (samples.empty())
            samples = "# TYPE " + family + " " + type + "\n";
        samples += sample + "\n";
    }

    std::map<std::string, std::string> mFamilies;
};

} // namespace

std::string OpenMetrics::write(const Statistics& statistics)
{
    Families families;
    for (const auto& [name, number] : statistics)
        families.add(name, number);
    families.addVersion(Inquiry::versionIn(statistics));
    return families.text();
}
