#include "protocol/CommandParser.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "protocol/CommandForms.h"

namespace BrokerProtocol
{

namespace
{

// Accepts exactly one document: {"<name of a form>":<payload of its shape>}. Stops at the first thing that
// does not belong there, so it never reads anything deeper.
template <class Forms>
class Handler : public nlohmann::json::json_sax_t
{
public:
    Handler(Command& command, std::vector<char>& unescaped, const Forms& forms)
        : mCommand(command), mUnescaped(unescaped), mForms(forms)
    {
    }

    const Form* form() const { return mForm; }

    bool null() override { return false; }
    bool boolean(bool) override { return false; }
    bool number_integer(number_integer_t) override { return false; } // called for negative numbers only
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool binary(binary_t&) override { return false; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override
    {
        return false;
    }

    bool number_unsigned(number_unsigned_t number) override
    {
        if (!isPayload(Shape::Number, 1) && !isPayload(Shape::NamedNumber, 2))
            return false;
        if (number > std::numeric_limits<uint32_t>::max())
            return false;
        mCommand.number = static_cast<uint32_t>(number);
        return true;
    }

    bool string(string_t& text) override
    {
        if (isPayload(Shape::Text, 1))
            mCommand.text = keep(text);
        else if (isPayload(Shape::Texts, 2))
            mCommand.texts.push_back(keep(text));
        else if (isPayload(Shape::Members, 2))
            mCommand.members.back().value = keep(text);
        else
            return false;
        return mCommand.texts.size() <= mostMembers;
    }

    bool start_object(std::size_t) override
    {
        ++mDepth;
        return mDepth == 1 || isPayload(Shape::Members, 2) || isPayload(Shape::NamedNumber, 2);
    }

    bool start_array(std::size_t) override
    {
        ++mDepth;
        return isPayload(Shape::Texts, 2);
    }

    bool key(string_t& name) override
    {
        if (mDepth == 1)
        {
            if (mForm != nullptr)
                return false; // a second member
            mForm = findForm(mForms, name);
            return mForm != nullptr;
        }
        if (mForm->shape == Shape::NamedNumber)
        {
            mCommand.text = keep(name);
            return ++mNames == 1;
        }
        mCommand.members.push_back({keep(name), {}});
        return mCommand.members.size() <= mostMembers;
    }

    bool end_object() override
    {
        --mDepth;
        if (mDepth == 1 && mForm->shape == Shape::NamedNumber)
            return mNames == 1;
        return mDepth != 0 || mForm != nullptr;
    }

    bool end_array() override
    {
        --mDepth;
        return true;
    }

private:
    bool isPayload(Shape shape, int depth) const
    {
        return mForm != nullptr && mForm->shape == shape && mDepth == depth;
    }

    // A text is never longer than its spelling in the message, which also has two quotes. So the reserved
    // room never moves, and each text has room for a terminator. Because of the terminators, no two texts end
    // at the same place.
    std::string_view keep(const std::string& text)
    {
        const std::size_t before = mUnescaped.size();
        mUnescaped.insert(mUnescaped.end(), text.begin(), text.end());
        mUnescaped.push_back('\0');
        return {mUnescaped.data() + before, text.size()};
    }

    Command& mCommand;
    std::vector<char>& mUnescaped;
    const Forms& mForms;
    const Form* mForm = nullptr;
    int mDepth = 0;
    int mNames = 0;
};

template <class Forms>
bool parse(std::string_view message, Command& command, std::vector<char>& unescaped, const Forms& forms)
{
    // The library takes a NUL as the end of the text and ignores the rest. JSON contains no NUL.
    if (message.find('\0') != std::string_view::npos)
        return false;
    Handler<Forms> handler(command, unescaped, forms);
    if (!nlohmann::json::sax_parse(message.begin(), message.end(), &handler))
        return false;
    command.operation = handler.form()->operation;
    return true;
}

} // namespace

bool parsePost(std::string_view message, Command& command, std::vector<char>& unescaped)
{
    return parse(message, command, unescaped, postForms);
}

bool parseRequest(std::string_view message, Command& command, std::vector<char>& unescaped)
{
    return parse(message, command, unescaped, requestForms);
}

bool parseUpdate(std::string_view message, Command& command, std::vector<char>& unescaped)
{
    return parse(message, command, unescaped, updateForms);
}

} // namespace BrokerProtocol
