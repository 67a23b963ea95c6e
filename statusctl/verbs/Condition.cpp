#include "statusctl/verbs/Condition.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "statusctl/text/Number.h"
#include "statusctl/verbs/Names.h"

namespace
{

constexpr const char* operatorLetters = "=<>~";

[[noreturn]] void refuse(const std::string& text)
{
    throw CLI::ValidationError("\"" + text +
                               R"(" is not a condition; use KEY, "KEY exists", or KEY=VALUE )"
                               R"((or one of != < <= > >= instead of =))");
}

} // namespace

struct Condition::Operator
{
    const char* text;
    Kind kind;
};

// Longer operators come first: "<=" begins like "<".
const Condition::Operator Condition::operators[] = {
    {"!=", Kind::NotEqual}, {"<=", Kind::LessOrEqual}, {">=", Kind::GreaterOrEqual},
    {"=", Kind::Equal},     {"<", Kind::Less},         {">", Kind::Greater},
};

Condition::Condition(std::string key, Kind kind, std::string operand)
    : mKey(std::move(key)), mKind(kind), mOperand(std::move(operand))
{
}

Condition Condition::read(const std::string& text, bool isLiteral)
{
    std::size_t at = text.find_first_of("=<>");
    std::optional<Condition> condition;
    if (at == std::string::npos)
        condition = readWithoutOperator(text);
    else
    {
        if (at > 0 && text[at] == '=' && text[at - 1] == '!')
            --at;
        const auto* const used = std::find_if(
            std::begin(operators), std::end(operators),
            [&](const Operator& each) { return text.compare(at, std::strlen(each.text), each.text) == 0; });
        const std::size_t end = at + std::strlen(used->text);
        // "==", "=~" and "=>" are mistakes: the value would begin with an operator's letter.
        if (!isLiteral && end < text.size() && std::strchr(operatorLetters, text[end]) != nullptr)
            refuse(text);
        condition = Condition(text.substr(0, at), used->kind, text.substr(end));
    }
    condition->check(text, isLiteral);
    return *condition;
}

bool Condition::hasNoKey(const std::string& text)
{
    return text.find_first_of("=<>") == 0 || text.compare(0, 2, "!=") == 0;
}

Condition Condition::readWithoutOperator(const std::string& text)
{
    static const std::string exists = " exists";
    const std::size_t end = text.size() - std::min(text.size(), exists.size());
    if (text.substr(end) == exists)
        return {text.substr(0, end), Kind::Exists, {}};
    return {text, Kind::Filled, {}};
}

void Condition::check(const std::string& text, bool isLiteral) const
{
    if (mKey.empty())
        throw CLI::ValidationError("missing key in \"" + text + "\"");
    if (!isLiteral && mKey.find_first_of(" \t!~") != std::string::npos)
        refuse(text);
    Names::checkExact({mKey}, isLiteral);
    if (isNumeric() && !Number::isNumber(mOperand))
        throw CLI::ValidationError("\"" + text + "\": \"" + mOperand + "\" is not a number");
}

bool Condition::isNumeric() const
{
    return mKind == Kind::Less || mKind == Kind::LessOrEqual || mKind == Kind::Greater ||
           mKind == Kind::GreaterOrEqual;
}

bool Condition::holds(const Value& value) const
{
    if (!value)
        return false;
    if (isNumeric())
    {
        const std::optional<int> order = Number::compare(*value, mOperand);
        return order && isOrdered(*order);
    }
    switch (mKind)
    {
    case Kind::Filled:
        return !value->empty();
    case Kind::Equal:
        return *value == mOperand;
    case Kind::NotEqual:
        return *value != mOperand;
    default:
        return true; // it exists
    }
}

bool Condition::isOrdered(int order) const
{
    switch (mKind)
    {
    case Kind::Less:
        return order < 0;
    case Kind::LessOrEqual:
        return order <= 0;
    case Kind::Greater:
        return order > 0;
    default:
        return order >= 0;
    }
}

std::string Condition::wanted() const
{
    if (mKind == Kind::Filled)
        return "a non-empty value";
    if (mKind == Kind::Exists)
        return "any value";
    const auto* const used = std::find_if(std::begin(operators), std::end(operators),
                                          [this](const Operator& each) { return each.kind == mKind; });
    if (isNumeric())
        return std::string(used->text) + " " + mOperand;
    return (mKind == Kind::NotEqual ? "not \"" : "\"") + mOperand + "\"";
}
