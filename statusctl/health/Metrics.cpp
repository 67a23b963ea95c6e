#include "statusctl/health/Metrics.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>

#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Text.h"

using BrokerProtocol::Statistics;
namespace Number = BrokerProtocol::Number;

namespace
{

enum class Type
{
    Counter, ///< only grows while the broker runs
    Gauge,
    Info,
    Unknown,
};

const std::string prefix = "statusbroker_";

// ------------------------------------------------------------------------------------------------- numbers

/// A number of the statistics, and its metric. Metrics use base units, and name them.
struct Known
{
    const char* number;
    const char* metric; ///< without the prefix
    const char* help;
    Type type;
    bool isInMicroseconds = false;
};

constexpr Known known[] = {
    {Number::posts, "posts", "Posts taken from clients.", Type::Counter},
    {Number::published, "notifications_published", "Notifications published, heartbeats included.",
     Type::Counter},
    {Number::missedEvents, "notifications_missed_events",
     "Events lost to subscribers that read too slowly, counted for each subscriber.", Type::Counter},
    {Number::fallenBehind, "subscribers_fallen_behind",
     "Times that a slow subscriber got only the latest values.", Type::Counter},
    {Number::commits, "state_commits", "Batches of changes written to the state file.", Type::Counter},
    {Number::stateErrors, "state_errors", "Failures to write the state file.", Type::Counter},
    {"policy.rules", "policy_rules", "Rules of the policy in force.", Type::Gauge},
    {Number::policyDenied, "policy_denied", "Names, and settings of the clock, that the policy denied.",
     Type::Counter},
    {Number::policyAudited, "policy_audited", "Names that the policy would have denied, but only logged.",
     Type::Counter},
    {"policy.auditedViews", "policy_audited_views",
     "Values and events that the policy would have hidden, but only logged.", Type::Counter},
    {Number::policyUnknownOwners, "policy_unknown_owners",
     "Connections closed because the kernel did not report their owner.", Type::Counter},
    {Number::policyOwnersGone, "policy_owners_gone",
     "Times that values ended with the client that owned them.", Type::Counter},
    {Number::policyQuota, "policy_quota",
     "Values, posts and connections refused because their user had used up its share.", Type::Counter},
    {"clients.requests", "clients_requests", "Connections to the port for requests.", Type::Gauge},
    {"clients.posts", "clients_posts", "Connections to the port for posts.", Type::Gauge},
    {"clients.notifications", "clients_notifications", "Connections to the port for notifications.",
     Type::Gauge},
    {"memory.connections", "memory_connections_bytes", "Bytes that all connections hold together.",
     Type::Gauge},
    {"memory.rss", "memory_rss_bytes", "Bytes of memory that the broker's process has.", Type::Gauge},
    {"loop.maxMicroseconds", "loop_max_seconds", "Longest round of the broker's loop since its start.",
     Type::Gauge, true},
    {"loop.p99Microseconds", "loop_p99_seconds",
     "99th percentile of the rounds of the broker's loop since its start.", Type::Gauge, true},
    {"stored.keys", "stored_keys", "Status values stored.", Type::Gauge},
    {"stored.forgotten", "stored_forgotten_keys",
     "Forgotten keys kept until all subscribers know that they are gone.", Type::Gauge},
    {"stored.bytes", "stored_bytes", "Bytes of all keys and values stored.", Type::Gauge},
    {"stored.timers", "stored_timers", "Timers stored.", Type::Gauge},
    {"stored.counters", "stored_counters", "Counters stored.", Type::Gauge},
    {Number::openDescriptors, "descriptors_open", "File descriptors that the broker has open.", Type::Gauge},
    {Number::mostDescriptors, "descriptors_limit", "File descriptors that the broker may open.", Type::Gauge},
    {"uptime.seconds", "uptime_seconds", "Seconds since the start of the broker.", Type::Gauge},
};

const Known* find(const std::string& number)
{
    const auto* const found = std::find_if(std::begin(known), std::end(known),
                                           [&](const Known& each) { return number == each.number; });
    return found == std::end(known) ? nullptr : found;
}

// Exact, and independent of the locale.
std::string inSeconds(uint64_t microseconds)
{
    constexpr uint64_t second = 1000000;
    const std::string fraction = std::to_string(second + microseconds % second);
    return std::to_string(microseconds / second) + '.' + fraction.substr(1);
}

// A number that both formats accept, also as printf("%g") writes it: 1e+06. "nan", "inf" and "0x1f" are no
// numbers here, though some readers accept them.
bool isNumber(const std::string& text)
{
    constexpr std::size_t most = 40;
    if (text.size() > most || text.find_first_not_of("0123456789+-.eE") != std::string::npos)
        return false;
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end;
}

// --------------------------------------------------------------------------------------------------- names

bool isIn(char letter, char first, char last)
{
    return letter >= first && letter <= last;
}

// "loop.maxRounds" becomes "loop_max_rounds". A metric's name allows no other characters.
std::string metricOf(const std::string& name)
{
    std::string result;
    for (const char letter : name)
    {
        if (isIn(letter, 'A', 'Z'))
            result.append({'_', static_cast<char>(letter - 'A' + 'a')});
        else
            result += isIn(letter, 'a', 'z') || isIn(letter, '0', '9') ? letter : '_';
    }
    return result;
}

// {request="sync"}. Text::escaped() comes first: some readers break lines at more than a line feed.
std::string labelOf(const std::string& label, const std::string& name)
{
    std::string value;
    for (const char letter : Text::escaped(name))
        value.append(letter == '"' || letter == '\\' ? "\\" : "").append(1, letter);
    return "{" + label + "=\"" + value + "\"}";
}

// ------------------------------------------------------------------------------------------------ families

/// Collects the samples by family: a family's samples must be adjacent, wherever their numbers come from.
class Families
{
public:
    explicit Families(Metrics::Format format) : mFormat(format) {}

    void addVersion(const std::string& version)
    {
        addSample({"build", Type::Info, "The broker's version."}, labelOf("version", version), "1");
    }

    void addNumber(const std::string& name, uint64_t number)
    {
        const std::size_t dot = name.find('.');
        const std::string group = name.substr(0, dot);
        const Known* metric = find(name);
        if (group == "version")
            return;
        if (group == "requests")
            addSample({"requests", Type::Counter, "Requests answered."},
                      labelOf("request", name.substr(dot + 1)), std::to_string(number));
        else if (group == "limit" || group == "malformed" || group == "refused")
            addSample({"refused", Type::Counter, "Messages, names and connections refused."},
                      labelOf("reason", name), std::to_string(number));
        else if (metric == nullptr)
            addSample({metricOf(name), Type::Unknown, "A number that this statusctl does not know."}, {},
                      std::to_string(number));
        else
            addSample({metric->metric, metric->type, metric->help}, {},
                      metric->isInMicroseconds ? inSeconds(number) : std::to_string(number));
    }

    void addValues(const StatusMap& values)
    {
        std::size_t numbers = 0;
        for (const auto& [key, value] : values)
        {
            if (isNumber(value) && ++numbers <= Metrics::mostValues)
                addSample({"value", Type::Gauge, "Values of this device that are numbers."},
                          labelOf("key", key), value);
        }
        addSample({"values_left_out", Type::Gauge, "Numbers left out because there are too many."}, {},
                  std::to_string(numbers - std::min(numbers, Metrics::mostValues)));
    }

    std::string text() const
    {
        std::string text;
        for (const auto& [name, family] : mFamilies)
        {
            std::string header = prefix;
            header.append(name).append(isPlain() ? suffixOf(family.type) : "");
            text.append("# HELP ").append(header).append(" ").append(family.help).append("\n");
            text.append("# TYPE ").append(header).append(" ").append(nameOf(family.type)).append("\n");
            for (const auto& [sample, number] : family.samples)
                text.append(sample).append(" ").append(number).append("\n");
        }
        if (!isPlain())
            return text + "# EOF";
        text.pop_back();
        return text;
    }

private:
    struct Metric
    {
        std::string name; // without prefix and suffix
        Type type;
        const char* help;
    };

    struct Family
    {
        Type type;
        const char* help;
        std::map<std::string, std::string> samples; // by metric and label
    };

    bool isPlain() const { return mFormat == Metrics::Format::Prometheus; }

    static const char* suffixOf(Type type)
    {
        return type == Type::Counter ? "_total" : type == Type::Info ? "_info" : "";
    }

    // The Prometheus format has fewer types.
    const char* nameOf(Type type) const
    {
        if (type == Type::Counter)
            return "counter";
        if (type == Type::Unknown)
            return isPlain() ? "untyped" : "unknown";
        return type == Type::Info && !isPlain() ? "info" : "gauge";
    }

    // Different names may become the same metric. The first name keeps it: readers refuse a text with a
    // metric twice, or in two families.
    void addSample(const Metric& metric, const std::string& label, const std::string& number)
    {
        const std::string name = metric.name + suffixOf(metric.type);
        if (mOwners.emplace(name, metric.name).first->second != metric.name)
            return;
        Family& family =
            mFamilies.try_emplace(metric.name, Family{metric.type, metric.help, {}}).first->second;
        if (family.type == metric.type)
            family.samples.emplace(prefix + name + label, number);
    }

    const Metrics::Format mFormat;
    std::map<std::string, Family> mFamilies;
    std::map<std::string, std::string> mOwners; // the family of each metric
};

} // namespace

std::string Metrics::write(Format format, const Statistics& statistics,
                           const std::optional<StatusMap>& values)
{
    Families families(format);
    families.addVersion(Inquiry::versionIn(statistics));
    if (values)
        families.addValues(*values);
    for (const auto& [name, number] : statistics)
        families.addNumber(name, number);
    return families.text();
}
