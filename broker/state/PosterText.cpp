#include "broker/state/PosterText.h"

#include <algorithm>
#include <charconv>

using BrokerProtocol::Poster;

namespace
{

constexpr char end = '\0';

// No name from the kernel or the file of users should contain these letters.
bool hasControls(std::string_view text)
{
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char letter) { return letter < ' ' || letter == 0x7F; });
}

Poster withoutControls(Poster poster)
{
    for (std::string* name : {&poster.user, &poster.service, &poster.program})
    {
        if (hasControls(*name))
            name->clear();
    }
    return poster;
}

void appendField(std::string& to, const std::string& text)
{
    to += text;
    to += end;
}

void append(std::string& to, const Poster& poster)
{
    appendField(to, poster.uid ? std::to_string(*poster.uid) : "");
    appendField(to, poster.user);
    appendField(to, poster.service);
    appendField(to, poster.pid == 0 ? "" : std::to_string(poster.pid));
    appendField(to, poster.program);
}

std::string written(const PosterText::Clients& clients)
{
    std::string text;
    append(text, clients.poster);
    if (!(clients.changer == clients.poster))
        append(text, clients.changer);
    return text;
}

// Takes the fields one by one, from any text.
class Fields
{
public:
    explicit Fields(std::string_view text) : mRest(text) {}

    std::string text()
    {
        const std::string field(mRest.substr(0, mRest.find(end)));
        mRest.remove_prefix(std::min(field.size() + 1, mRest.size()));
        return field;
    }

    std::optional<uint32_t> number()
    {
        const std::string field = text();
        if (field.empty())
            return std::nullopt;
        uint32_t number = 0;
        std::from_chars(field.data(), field.data() + field.size(), number);
        return number;
    }

    bool isAtEnd() const { return mRest.empty(); }

private:
    std::string_view mRest;
};

Poster posterIn(Fields& fields)
{
    Poster poster;
    poster.uid = fields.number();
    poster.user = fields.text();
    poster.service = fields.text();
    poster.pid = fields.number().value_or(0);
    poster.program = fields.text();
    return poster;
}

} // namespace

std::string PosterText::write(const Clients& clients)
{
    std::string text = written({withoutControls(clients.poster), withoutControls(clients.changer)});
    if (text.size() <= mostBytes)
        return text;
    Clients numbers;
    const auto keep = [](const Poster& from, Poster& to) { to.uid = from.uid, to.pid = from.pid; };
    keep(clients.poster, numbers.poster);
    keep(clients.changer, numbers.changer);
    return written(numbers);
}

std::optional<PosterText::Clients> PosterText::read(std::string_view text)
{
    if (text.size() > mostBytes)
        return std::nullopt;
    Fields fields(text);
    Clients clients;
    clients.poster = posterIn(fields);
    clients.changer = fields.isAtEnd() ? clients.poster : posterIn(fields);
    if (write(clients) != text)
        return std::nullopt;
    return clients;
}
