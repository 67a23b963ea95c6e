#ifndef PROTOCOL_PLAINSCANNER_H
#define PROTOCOL_PLAINSCANNER_H

#include <cstddef>
#include <string_view>

/// Plain texts need no escapes in JSON: printable ASCII without quotes and backslashes. Nearly all texts are
/// plain.
namespace PlainText
{

/// The length of the plain beginning of the text.
std::size_t plainLength(std::string_view text);

inline bool isPlain(std::string_view text)
{
    return plainLength(text) == text.size();
}

} // namespace PlainText

/// Reads a JSON document of plain texts without white space, piece by piece. All other documents need a
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

    /// @param text points into the document
    bool takeText(std::string_view& text)
    {
        if (!take('"'))
            return false;
        text = mRest.substr(0, PlainText::plainLength(mRest));
        mRest.remove_prefix(text.size());
        return take('"');
    }

    /// Reads {"<name>":"<value>",...}: calls takes(name, value) for each member, and stops when it returns
    /// false.
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
