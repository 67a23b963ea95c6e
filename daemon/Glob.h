#ifndef DAEMON_GLOB_H
#define DAEMON_GLOB_H

#include <string>
#include <string_view>

/// A name, or a pattern of names: * is any text, ? is one letter, and \ takes the next letter literally.
///
/// Every valid glob means the same to statusctl. Sets of letters, "[a-z]", are refused: an index cannot serve
/// them.
class Glob
{
public:
    /// Returns the error in a text; empty if there is none.
    static std::string errorIn(std::string_view text);

    /// @param text a valid glob
    explicit Glob(std::string_view text);

    /// The glob as it was written.
    const std::string& text() const { return mText; }

    /// The beginning of each name that the glob matches.
    const std::string& literal() const { return mLiteral; }

    /// The pattern for the rest of the name. Empty if only the literal itself matches.
    const std::string& rest() const { return mRest; }

    /// The end of each name that the glob matches: the letters behind the last wildcard.
    const std::string& tail() const { return mTail; }

    /// Whether the rest is a star and the tail.
    bool isTailOnly() const { return mIsTailOnly; }

    bool matches(std::string_view name) const
    {
        if (name.substr(0, mLiteral.size()) != mLiteral)
            return false;
        name.remove_prefix(mLiteral.size());
        return mRest.empty() ? name.empty() : matches(mRest, name);
    }

    bool matchesEverything() const { return mLiteral.empty() && mRest == "*"; }

    /// Takes at most as many steps as the product of both lengths.
    static bool matches(std::string_view rest, std::string_view name);

private:
    std::string mText;
    std::string mLiteral;
    std::string mRest;
    std::string mTail;
    bool mIsTailOnly = false;
};

#endif
