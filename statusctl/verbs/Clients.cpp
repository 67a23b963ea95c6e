#include <chrono>

#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Table.h"
#include "statusctl/text/Text.h"
#include "statusctl/text/Timestamp.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Verb.h"

namespace
{

using BrokerProtocol::Client;

const char* const unknown = "-";

Timestamp::Time timeOf(uint64_t microseconds)
{
    return Timestamp::Time(std::chrono::microseconds(microseconds));
}

std::string orUnknown(const std::string& text)
{
    return text.empty() ? unknown : Text::escaped(text);
}

class Clients : public IVerb
{
public:
    explicit Clients(CLI::App& app)
    {
        Verbs::describe(
            app, "clients", "List the clients of the broker", "statusctl clients\nstatusctl --json clients",
            "One line for each connected process, the oldest first: its systemd service, program, user and\n"
            "process; the numbers of its connections, posts, requests and refusals; the bytes that wait for\n"
            "it, that it sent (in) and that it received (out). The kernel vouches for user and service, but\n"
            "not for process and program. They are missing if the broker may not see the process. A + after\n"
            "the process means that other processes share its sockets.");
    }

    ExitCode run(const Settings& settings) override
    {
        const std::vector<Client> clients = Inquiry::clients(settings);
        Output output(settings);
        if (settings.isJson())
            output.json(toJson(clients));
        else
            printTable(output, clients);
        return ExitCode::Done;
    }

private:
    static Json::Value toJson(const std::vector<Client>& clients)
    {
        Json::Value list(Json::arrayValue);
        for (const Client& client : clients)
            list.append(toJson(client));
        Json::Value object(Json::objectValue);
        object["clients"] = std::move(list);
        return object;
    }

    // Leaves unknown members out.
    static Json::Value toJson(const Client& client)
    {
        Json::Value object = DetailsText::toJson(static_cast<const BrokerProtocol::Poster&>(client));
        if (client.isShared)
            object["shared"] = true;
        object["since"] = Timestamp::utc(timeOf(client.since));
        object["connections"] = static_cast<Json::UInt64>(client.connections);
        object["posts"] = static_cast<Json::UInt64>(client.posts);
        object["requests"] = static_cast<Json::UInt64>(client.requests);
        object["refusals"] = static_cast<Json::UInt64>(client.refusals);
        object["queued"] = static_cast<Json::UInt64>(client.queued);
        object["received"] = static_cast<Json::UInt64>(client.received);
        object["sent"] = static_cast<Json::UInt64>(client.sent);
        return object;
    }

    static void printTable(Output& output, const std::vector<Client>& clients)
    {
        constexpr auto left = Table::Alignment::Left;
        constexpr auto right = Table::Alignment::Right;
        Table table({{"SERVICE", left},
                     {"PROGRAM", left},
                     {"USER", left},
                     {"PID", right},
                     {"CONNS", right},
                     {"POSTS", right},
                     {"REQUESTS", right},
                     {"REFUSED", right},
                     {"QUEUED", right},
                     {"IN", right},
                     {"OUT", right},
                     {"SINCE", left}});
        for (const Client& client : clients)
            table.add({orUnknown(client.service), orUnknown(client.program), orUnknown(client.user),
                       process(client), std::to_string(client.connections), std::to_string(client.posts),
                       std::to_string(client.requests), std::to_string(client.refusals),
                       std::to_string(client.queued), std::to_string(client.received),
                       std::to_string(client.sent), Timestamp::local(timeOf(client.since))});
        for (const std::string& line : table.lines())
            output.line(line);
    }

    static std::string process(const Client& client)
    {
        return client.pid == 0 ? unknown : std::to_string(client.pid) + (client.isShared ? "+" : "");
    }
};

} // namespace

std::unique_ptr<IVerb> Verbs::addClients(CLI::App& app)
{
    return std::make_unique<Clients>(app);
}
