#include "protocol/BrokerDocuments.h"

#include <algorithm>

#include "protocol/CommandForms.h"
#include "protocol/CommandParser.h"
#include "protocol/EscapedText.h"
#include "protocol/PlainScanner.h"

namespace BrokerProtocol
{

namespace
{

// A list with room for more elements than this is freed after the message, not kept for the next one.
constexpr std::size_t keptElements = 256;

template <class Element>
void empty(std::vector<Element>& elements)
{
    elements.clear();
    if (elements.capacity() > keptElements)
        std::vector<Element>().swap(elements);
}

} // namespace

const char* nameOf(Operation operation)
{
    const auto index = static_cast<std::size_t>(operation);
    const Form& form =
        index < postForms.size() ? postForms[index] : requestForms.at(index - postForms.size());
    return form.name.data();
}

namespace
{

// ---- Reads plain messages, which nearly all messages are, with their parts in the order that clients use.

bool scanTexts(PlainScanner& scanner, std::vector<std::string_view>& texts)
{
    if (!scanner.take('['))
        return false;
    if (scanner.take(']'))
        return true;
    do
    {
        std::string_view text;
        if (texts.size() == mostMembers || !scanner.takeText(text))
            return false;
        texts.push_back(text);
    } while (scanner.take(','));
    return scanner.take(']');
}

bool scanMembers(PlainScanner& scanner, std::vector<Member>& members)
{
    return scanner.takeMembers(
        [&](std::string_view name, std::string_view value)
        {
            if (members.size() == mostMembers || (!members.empty() && members.back().name >= name))
                return false;
            members.push_back({name, value});
            return true;
        });
}

bool scanPayload(PlainScanner& scanner, Shape shape, Command& command)
{
    switch (shape)
    {
    case Shape::Text:
        return scanner.takeText(command.text);
    case Shape::Texts:
        return scanTexts(scanner, command.texts);
    case Shape::Members:
        return scanMembers(scanner, command.members);
    case Shape::Number:
    case Shape::NamedNumber:
        return false;
    }
    return false;
}

} // namespace

template <class Forms, class Parse>
bool Command::read(std::string_view message, const Forms& forms, Parse parse)
{
    clear();
    makeRoom(message.size());
    PlainScanner scanner(message);
    std::string_view name;
    if (scanner.take('{') && scanner.takeText(name) && scanner.take(':'))
    {
        const Form* form = findForm(forms, name);
        if (form == nullptr)
            return false;
        operation = form->operation;
        if (scanPayload(scanner, form->shape, *this) && scanner.take('}') && scanner.atEnd())
            return true;
        clear();
        makeRoom(message.size());
    }
    mUnescaped.reserve(message.size());
    if (!parse(message, *this, mUnescaped))
        return false;
    sortMembers();
    return true;
}

bool Command::readPost(std::string_view message)
{
    return read(message, postForms, parsePost);
}

bool Command::readRequest(std::string_view message)
{
    return read(message, requestForms, parseRequest);
}

bool Command::readUpdate(std::string_view message)
{
    return read(message, updateForms, parseUpdate);
}

void Command::clear()
{
    text = {};
    number = 0;
    empty(members);
    empty(texts);
    empty(mUnescaped);
}

// Reserves room for everything that a long message may hold. A growing vector would need half as much again
// while it moves. Unused room takes no memory.
void Command::makeRoom(std::size_t bytes)
{
    constexpr std::size_t shortBytes = 4096;
    constexpr std::size_t shortestMember = std::string_view(R"("":"",)").size();
    constexpr std::size_t shortestText = std::string_view(R"("",)").size();
    if (bytes < shortBytes)
        return;
    members.reserve(std::min(bytes / shortestMember, mostMembers + 1));
    texts.reserve(std::min(bytes / shortestText, mostMembers + 1));
}

// If several members have the same name, the last one counts: its value ends last in the message. A stable
// sort would need a second list of members.
void Command::sortMembers()
{
    const auto end = [](const Member& member) { return member.value.data() + member.value.size(); };
    const auto byName = [&](const Member& one, const Member& other)
    { return one.name != other.name ? one.name < other.name : end(one) > end(other); };
    const auto sameName = [](const Member& one, const Member& other) { return one.name == other.name; };
    std::sort(members.begin(), members.end(), byName);
    members.erase(std::unique(members.begin(), members.end(), sameName), members.end());
}

// ------------------------------------------------------------------------------------------------- writing

namespace
{

// A comma comes first, except for the first name of a list.
void appendName(std::string& to, std::string_view name)
{
    if (!to.empty() && to.back() != '{')
        to += ',';
    appendText(to, name);
    to += ':';
}

void appendNumber(std::string& to, std::string_view name, uint64_t number)
{
    appendName(to, name);
    to += std::to_string(number);
}

void appendKnown(std::string& to, std::string_view name, std::string_view text)
{
    if (!text.empty())
        appendMember(to, {name, text});
}

void appendIdentity(std::string& to, const Poster& client)
{
    appendKnown(to, ClientMember::user, client.user);
    if (client.uid)
        appendNumber(to, ClientMember::uid, *client.uid);
    appendKnown(to, ClientMember::service, client.service);
    if (client.pid != 0)
        appendNumber(to, ClientMember::pid, client.pid);
    appendKnown(to, ClientMember::program, client.program);
}

void appendPoster(std::string& to, std::string_view name, const Poster& poster)
{
    appendName(to, name);
    to += '{';
    appendIdentity(to, poster);
    to += '}';
}

void appendClient(std::string& to, const Client& client)
{
    to += '{';
    appendIdentity(to, client);
    if (client.isShared)
        appendNumber(to, ClientMember::shared, 1);
    appendNumber(to, ClientMember::since, client.since);
    appendNumber(to, ClientMember::connections, client.connections);
    appendNumber(to, ClientMember::posts, client.posts);
    appendNumber(to, ClientMember::requests, client.requests);
    appendNumber(to, ClientMember::queued, client.queued);
    appendNumber(to, ClientMember::refusals, client.refusals);
    appendNumber(to, ClientMember::received, client.received);
    appendNumber(to, ClientMember::sent, client.sent);
    to += '}';
}

} // namespace

void appendText(std::string& to, std::string_view text)
{
    if (!PlainText::isPlain(text))
    {
        EscapedText::append(to, text);
        return;
    }
    to += '"';
    to += text;
    to += '"';
}

void appendMember(std::string& to, const Member& member)
{
    appendName(to, member.name);
    appendText(to, member.value);
}

void appendUpdate(std::string& to, const char* key, const std::vector<Member>& members)
{
    to += '{';
    appendText(to, key);
    to += ":{";
    for (const Member& member : members)
        appendMember(to, member);
    to += "}}";
}

void appendList(std::string& to, const char* key, const std::vector<std::string_view>& texts)
{
    to += '{';
    appendText(to, key);
    to += ":[";
    for (const std::string_view& text : texts)
    {
        if (&text != &texts.front())
            to += ',';
        appendText(to, text);
    }
    to += "]}";
}

void appendStatusValueReply(std::string& to, std::string_view value)
{
    // Otherwise the quote behind a long value would need another, twice as large piece of memory.
    constexpr std::size_t nameAndPunctuation = 32;
    to.reserve(to.size() + value.size() + nameAndPunctuation);
    to += '{';
    appendText(to, Key::statusValue);
    to += ':';
    appendText(to, value);
    to += '}';
}

void appendTimerReply(std::string& to, uint64_t microseconds)
{
    to += std::to_string(microseconds);
}

void appendCounterReply(std::string& to, uint32_t value)
{
    to += std::to_string(static_cast<int32_t>(value));
}

void appendNumbers(std::string& to, const std::map<std::string, uint64_t>& numbers)
{
    to += '{';
    for (const auto& [name, number] : numbers)
        appendNumber(to, name, number);
    to += '}';
}

void appendDetails(std::string& to, const ValueDetails& details)
{
    to += '{';
    appendMember(to, {DetailMember::value, details.value});
    appendNumber(to, DetailMember::posted, details.posted);
    appendNumber(to, DetailMember::changed, details.changed);
    appendNumber(to, DetailMember::posts, details.posts);
    appendNumber(to, DetailMember::changes, details.changes);
    appendPoster(to, DetailMember::poster, details.poster);
    if (!(details.changer == details.poster))
        appendPoster(to, DetailMember::changer, details.changer);
    to += '}';
}

void appendTimer(std::string& to, const TimerReading& timer)
{
    to += '{';
    appendNumber(to, TimerMember::elapsed, timer.elapsed);
    appendNumber(to, TimerMember::lastStarted, timer.lastStarted);
    appendNumber(to, TimerMember::running, timer.isRunning ? 1 : 0);
    to += '}';
}

void appendClients(std::string& to, const std::vector<Client>& clients, bool isComplete)
{
    to += '{';
    appendText(to, ClientMember::clients);
    to += ":[";
    for (const Client& client : clients)
    {
        if (&client != &clients.front())
            to += ',';
        appendClient(to, client);
    }
    to += ']';
    appendNumber(to, ClientMember::complete, isComplete ? 1 : 0);
    to += '}';
}

} // namespace BrokerProtocol
