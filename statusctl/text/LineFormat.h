#ifndef STATUSCTL_TEXT_LINEFORMAT_H
#define STATUSCTL_TEXT_LINEFORMAT_H

#include <functional>
#include <string>
#include <utility>

/// The form of a line, chosen by the user: text with fields, each a percent sign and a letter. "%%" is a
/// percent sign.
class LineFormat
{
public:
    explicit LineFormat(std::string text) : mText(std::move(text)) {}

    /// The first field whose letter is not among these, as "%x"; empty if there is none.
    std::string unknownField(const std::string& letters) const;

    bool has(char letter) const;

    /// Returns the text with each field replaced by `textOf` of its letter.
    std::string fill(const std::function<std::string(char)>& textOf) const;

private:
    std::string mText;
};

#endif
