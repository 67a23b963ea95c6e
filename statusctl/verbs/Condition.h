#ifndef STATUSCTL_VERBS_CONDITION_H
#define STATUSCTL_VERBS_CONDITION_H

#include <optional>
#include <string>

/// A condition of "wait" for the value of a key.
class Condition
{
public:
    using Value = std::optional<std::string>; ///< nothing if the key does not exist

    /// Reads KEY, "KEY exists", or KEY, one of = != < <= > >=, and VALUE.
    /// @param isLiteral allow any letters in KEY except those of operators, and any in VALUE
    /// @throws CLI::ValidationError for any other text: "wait" would wait for ever
    static Condition read(const std::string& text, bool isLiteral);

    /// Whether the text begins with an operator.
    static bool hasNoKey(const std::string& text);

    const std::string& key() const { return mKey; }

    bool holds(const Value& value) const;

    /// Completes a message behind "wanted".
    std::string wanted() const;

private:
    enum class Kind
    {
        Filled,
        Exists,
        Equal,
        NotEqual,
        Less,
        LessOrEqual,
        Greater,
        GreaterOrEqual,
    };
    struct Operator;
    static const Operator operators[];

    Condition(std::string key, Kind kind, std::string operand);
    static Condition readWithoutOperator(const std::string& text);
    void check(const std::string& text, bool isLiteral) const;
    bool isNumeric() const;
    bool isOrdered(int order) const;

    std::string mKey;
    Kind mKind;
    std::string mOperand;
};

#endif
