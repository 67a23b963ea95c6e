#include "statusctl/health/Diagnosis.h"

#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "protocol/Words.h"
#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Text.h"

using BrokerProtocol::Client;
using BrokerProtocol::Statistics;
using Diagnosis::Findings;
namespace Number = BrokerProtocol::Number;

namespace
{

std::string describe(const Ports::Port& port)
{
    return "port " + std::to_string(port.number) + " (" + port.purpose + ")";
}

bool isOneOf(const std::string& word, const std::string& words)
{
    std::istringstream all(words);
    for (std::string one; all >> one;)
    {
        if (one == word)
            return true;
    }
    return false;
}

std::string programOn(const Diagnosis::Answer& answer)
{
    return answer.listeners.empty() ? "a program" : Listeners::nameOf(answer.listeners.front());
}

constexpr const char* restart = R"("systemctl restart statusbroker")";

// It listens, but does not answer.
bool isSilent(const Diagnosis::Answer& answer)
{
    return !answer.listeners.empty() && !answer.socketType;
}

// Judged by the name of the program, as far as it is known.
bool isSilentBroker(const Diagnosis::Answer& answer)
{
    const std::string broker = "statusbroker";
    return isSilent(answer) && answer.listeners.front().process &&
           answer.listeners.front().name.compare(0, broker.size(), broker) == 0;
}

void addForeign(const Diagnosis::Answer& answer, const std::string& what, Findings& findings)
{
    findings.push_back({"port", programOn(answer) + " on " + describe(answer.port) + " " + what,
                        "end that program, or move it to another port; the broker's ports are fixed"});
}

void addPort(const Diagnosis::Answer& answer, Findings& findings)
{
    if (isSilentBroker(answer))
        return; // addSilentBrokers() reports it once for all its ports
    if (answer.listeners.empty() && !answer.socketType)
        findings.push_back({"port", "nothing listens on " + describe(answer.port),
                            R"(start the broker: "systemctl start statusbroker", or run "statusbroker")"});
    else if (isSilent(answer) && !answer.listeners.front().process)
        findings.push_back({"port",
                            programOn(answer) + " on " + describe(answer.port) +
                                " does not answer: it is a hung broker or another program",
                            std::string("run this as root to learn which; if it is the broker, ") + restart +
                                "; otherwise end it"});
    else if (!answer.socketType || answer.socketType->empty())
        addForeign(answer, answer.socketType ? "answers, but is not a broker" : "is not a broker", findings);
    else if (!isOneOf(*answer.socketType, answer.port.types))
        addForeign(answer, "is a ZeroMQ " + *answer.socketType + " socket, which no broker has there",
                   findings);
}

// A hung broker owns all three ports. One finding covers them.
void addSilentBrokers(const std::vector<Diagnosis::Answer>& answers, Findings& findings)
{
    std::map<pid_t, std::string> ports;
    for (const Diagnosis::Answer& answer : answers)
    {
        if (!isSilentBroker(answer))
            continue;
        std::string& text = ports[*answer.listeners.front().process];
        text += (text.empty() ? "" : ", ") + describe(answer.port);
    }
    for (const Diagnosis::Answer& answer : answers)
    {
        const auto found =
            isSilentBroker(answer) ? ports.find(*answer.listeners.front().process) : ports.end();
        if (found == ports.end())
            continue;
        const std::string process = std::to_string(found->first);
        if (answer.listeners.front().isStopped)
            findings.push_back({"hung",
                                programOn(answer) + " is stopped, and does not answer on " + found->second,
                                "resume it: \"kill -CONT " + process + "\"; or restart it: " + restart});
        else
            findings.push_back({"hung", programOn(answer) + " hangs: it does not answer on " + found->second,
                                std::string("restart it: ") + restart + ", or \"kill -KILL " + process +
                                    "\" and start it again; its log may say why"});
        ports.erase(found);
    }
}

// A rule on the broker's numbers: any number but 0 is a finding.
struct Rule
{
    const char* number;
    const char* check;
    const char* problem; ///< the number follows
    const char* remedy;
};

constexpr Rule rules[] = {
    {Number::missedEvents, "lost", "events lost because subscribers read too slowly",
     "find the client that was stopped or has slow callbacks; or raise --max-notify-bytes"},
    {Number::fallenBehind, "slow", "times that a slow subscriber got only the latest values",
     "find the client that was stopped or has slow callbacks"},
    {Number::malformedPosts, "malformed", "unreadable posts",
     "find their sender: the broker's log shows how they begin"},
    {Number::malformedRequests, "malformed", "unreadable requests",
     "find their sender: the broker's log shows how they begin"},
    {Number::stateErrors, "state", "failures to open or write the state file",
     "the broker's log names the file and the reason, such as a missing or protected folder, or a full or "
     "failing disk"},
    {Number::systemTimeRefused, "clock", "refused requests to set the clock",
     "if clients may set the clock, start the broker with --allow-set-time"},
    {Number::policyDenied, "policy", "names that the policy denied to clients",
     "the broker's log shows client, name and rule; \"statusctl may\" explains a decision"},
    {Number::policyAudited, "audit", "names that the policy would deny to clients, but only logs",
     "the broker's log shows client, name and rule; once it is quiet, remove the line \"mode\" from the "
     "policy"},
    {Number::policyQuota, "quota", "refusals because a user had used up its share",
     "the broker's log shows client and quota"},
    {Number::policyUnknownOwners, "policy",
     "connections refused because the kernel did not report their owner",
     "the broker's log says why; a client of another user namespace needs a user that the broker knows"},
};

uint64_t valueOf(const Statistics& numbers, const std::string& name)
{
    const auto found = numbers.find(name);
    return found == numbers.end() ? 0 : found->second;
}

void addLimits(const Statistics& numbers, Findings& findings)
{
    const std::string prefix = "limit.";
    for (auto number = numbers.lower_bound(prefix);
         number != numbers.end() && number->first.compare(0, prefix.size(), prefix) == 0; ++number)
    {
        if (number->second != 0)
            findings.push_back({"limit",
                                "the limit \"" + number->first.substr(prefix.size()) +
                                    "\" was exceeded; refused: " + std::to_string(number->second),
                                "find the client in the broker's log; if it is right, raise the limit "
                                "(statusbroker(8))"});
    }
}

void addDescriptors(const Statistics& numbers, Findings& findings)
{
    constexpr uint64_t percent = 100;
    constexpr uint64_t tooFull = 80;
    const uint64_t open = valueOf(numbers, Number::openDescriptors);
    const uint64_t limit = valueOf(numbers, Number::mostDescriptors);
    if (limit != 0 && open * percent >= limit * tooFull)
        findings.push_back({"descriptors",
                            "the broker has " + std::to_string(open) + " of " + std::to_string(limit) +
                                " file descriptors open",
                            "find the clients with so many connections, or raise LimitNOFILE"});
}

void addVersion(const Statistics& numbers, const std::string& ownVersion, Findings& findings)
{
    const std::string version = Inquiry::versionIn(numbers);
    if (version != ownVersion)
        findings.push_back({"version", "the broker is version " + version + ", this program " + ownVersion,
                            "if the broker was upgraded, restart it; install both from one release"});
}

// In the form that "statusctl may" takes.
std::string nameForMay(const Client& client)
{
    return std::to_string(*client.uid) + (client.service.empty() ? "" : ":" + client.service);
}

std::string describe(const Client& client)
{
    const std::string program = client.program.empty() ? "a program" : client.program;
    const std::string process = client.pid == 0 ? "" : " (process " + std::to_string(client.pid) + ")";
    return program + process + " of " + nameForMay(client) + ", " + Text::counted(client.refusals, "time");
}

std::string inMilliseconds(std::chrono::microseconds duration)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms",
                  std::chrono::duration<double, std::milli>(duration).count());
    return text.data();
}

} // namespace

Findings Diagnosis::ofPorts(const std::vector<Answer>& answers)
{
    Findings findings;
    std::set<pid_t> processes;
    for (const Answer& answer : answers)
    {
        addPort(answer, findings);
        for (const Listeners::Listener& listener : answer.listeners)
        {
            if (listener.process)
                processes.insert(*listener.process);
        }
    }
    addSilentBrokers(answers, findings);
    if (findings.empty() && processes.size() > 1)
        findings.push_back({"port", "the three ports belong to different processes",
                            "end the process that is not the broker; \"ss -ltnp\" shows them"});
    return findings;
}

Findings Diagnosis::ofStatistics(const Statistics& numbers, const std::string& ownVersion)
{
    Findings findings;
    addVersion(numbers, ownVersion, findings);
    for (const Rule& rule : rules)
    {
        if (const uint64_t number = valueOf(numbers, rule.number))
            findings.push_back({rule.check, rule.problem + (": " + std::to_string(number)), rule.remedy});
    }
    addLimits(numbers, findings);
    addDescriptors(numbers, findings);
    return findings;
}

Findings Diagnosis::ofRefused(const std::vector<Client>& clients)
{
    constexpr std::size_t most = 5;
    std::string names;
    std::string first;
    std::size_t count = 0;
    for (const Client& client : clients)
    {
        if (client.refusals == 0 || !client.uid)
            continue;
        if (count == 0)
            first = nameForMay(client);
        if (++count <= most)
            names += (names.empty() ? "" : ", ") + describe(client);
    }
    if (count == 0)
        return {};
    if (count > most)
        names += ", and " + std::to_string(count - most) + " more";
    return {
        {"refused",
         "clients that were refused something, because it was beyond a limit, malformed or denied: " + names,
         "the broker's log shows the reasons; \"sudo statusctl may " + first +
             " ACTION NAME\" explains a denial"}};
}

Findings Diagnosis::ofRoundTrips(const RoundTrips& trips)
{
    using std::chrono::milliseconds;
    constexpr milliseconds usual{5}; // ten times what a small device needs
    constexpr milliseconds longest{100};
    if (trips.median <= usual && trips.most <= longest)
        return {};
    return {{"slow",
             "a query takes " + inMilliseconds(trips.median) + ", at most " + inMilliseconds(trips.most),
             "look for load (\"top\"), a swapping device, or a client that floods the broker "
             "(\"statusctl stats\")"}};
}
