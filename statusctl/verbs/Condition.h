#ifndef STATUSCTL_VERBS_CONDITION_H
#define STATUSCTL_VERBS_CONDITION_H

#include <optional>
#include <string>

/// A condition of "wait" on the value of one key.
class Condition
{
public:
    using Value = std::optional<std::string>; ///< nothing: the key is not there

    /// Reads KEY, "KEY exists", or KEY, one of = != < <= > >=, and VALUE.
    /// @param isLiteral any letters may stand in KEY but those of the operators, and any in VALUE
    /// @throws CLI::ValidationError for anything else: to wait for it would take for ever
    static Condition read(const std::string& text, bool isLiteral);

    const std::string& key() const { return mKey; }

    bool holds(const Value& value) const;

    /// For messages: the text behind "wanted".
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
