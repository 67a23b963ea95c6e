#include "c/Arguments.h"

#include <cstring>

#include "c/Failure.h"
#include "protocol/ClientDocuments.h"
#include "protocol/Utf8.h"

namespace StatusC
{

namespace
{

// Reads no more than `most` bytes and the NUL, so a text that does not end is refused as well.
std::string textIn(const char* text, std::size_t most)
{
    if (text == nullptr)
        refuse(STATUS_EINVAL);
    const std::size_t length = strnlen(text, most + 1);
    if (length > most)
        refuse(STATUS_ETOOLONG);
    if (!Utf8::isValid({text, length}))
        refuse(STATUS_EUTF8);
    return {text, length};
}

// A call with several names. Stops before it has copied too much.
class Total
{
public:
    Total(const void* list, std::size_t count)
    {
        if (list == nullptr || count == 0)
            refuse(STATUS_EINVAL);
        if (count > STATUS_COUNT_MOST)
            refuse(STATUS_ETOOLONG);
    }

    void add(const std::string& text)
    {
        mBytes += text.size();
        if (mBytes > STATUS_MESSAGE_BYTES)
            refuse(STATUS_ETOOLONG);
    }

private:
    std::size_t mBytes = 0;
};

} // namespace

void refuse(int result)
{
    throw Failure{result};
}

std::string nameIn(const char* name)
{
    std::string text = textIn(name, STATUS_NAME_BYTES);
    if (text.empty())
        refuse(STATUS_EINVAL);
    return text;
}

std::string valueIn(const char* value)
{
    return textIn(value, STATUS_VALUE_BYTES);
}

StatusKeys namesIn(const char* const* names, std::size_t count)
{
    Total total(names, count);
    StatusKeys result;
    for (std::size_t at = 0; at < count; ++at)
        total.add(result.emplace_back(nameIn(names[at])));
    return result;
}

StatusMap valuesIn(const status_pair_t* pairs, std::size_t count)
{
    Total total(pairs, count);
    StatusMap result;
    for (std::size_t at = 0; at < count; ++at)
    {
        std::string key = nameIn(pairs[at].key);
        std::string value = valueIn(pairs[at].value);
        total.add(key);
        total.add(value);
        result.insert_or_assign(std::move(key), std::move(value));
    }
    return result;
}

void checkSendable(const std::string& document)
{
    if (document.size() > STATUS_MESSAGE_BYTES)
        refuse(STATUS_ETOOLONG);
    if (BrokerProtocol::losesItsEnd(document.size()))
        refuse(STATUS_EUNSENDABLE);
}

StatusKeys askable(StatusKeys names)
{
    const auto document = [&names]
    { return BrokerProtocol::writeList(BrokerProtocol::Key::getClientInfoValues, names); };
    if (BrokerProtocol::losesItsEnd(document().size()))
        names.push_back(names.back()); // the same question with another length
    checkSendable(document());
    return names;
}

} // namespace StatusC
