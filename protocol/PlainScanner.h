#ifndef PROTOCOL_PLAINSCANNER_H
#define PROTOCOL_PLAINSCANNER_H

#include <cstddef>
#include <string_view>

/// Texts that a JSON document shows as they are: printable ASCII without quotes and backslashes. Nearly all
/// texts are.
namespace PlainText
{

/// How far the text is plain, from its beginning.
std::size_t plainLength(std::string_view text);

inline bool isPlain(std::string_view text)
{
    return plainLength(text) == text.size();
}

} // namespace PlainText

/// Reads a JSON document of plain texts and without white space, piece by piece. Any other is left to a
/// parser.
class PlainScanner
{
public:
    explicit PlainScanner(std::string_view document) : mRest(document) {}

    bool take(char character)
    {
        if (mRest.empty() || mRest.front() != character)
            return false;
        mRest.remove_prefix(1);
        return true;
    }

    /// @param text stands in the document
    bool takeText(std::string_view& text)
    {
        if (!take('"'))
            return false;
        text = mRest.substr(0, PlainText::plainLength(mRest));
        mRest.remove_prefix(text.size());
        return take('"');
    }

    /// {"<name>":"<value>",...}: calls takes(name, value) for each, and goes on while that is true.
    template <class Takes>
    bool takeMembers(Takes takes)
    {
        if (!take('{'))
            return false;
        if (take('}'))
            return true;
        do
        {
            std::string_view name;
            std::string_view value;
            if (!takeText(name) || !take(':') || !takeText(value) || !takes(name, value))
                return false;
        } while (take(','));
        return take('}');
    }

    bool atEnd() const { return mRest.empty(); }

private:
    std::string_view mRest;
};

#endif
