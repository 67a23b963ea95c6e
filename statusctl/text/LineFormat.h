#ifndef STATUSCTL_TEXT_LINEFORMAT_H
#define STATUSCTL_TEXT_LINEFORMAT_H

#include <functional>
#include <string>
#include <utility>

/// A line as somebody wants it: a text with fields, a percent sign and a letter each. "%%" is a percent sign.
class LineFormat
{
public:
    explicit LineFormat(std::string text) : mText(std::move(text)) {}

    /// The first field whose letter is none of these, "%x"; empty if there is none.
    std::string unknownField(const std::string& letters) const;

    bool has(char letter) const;

    /// The text with each field replaced by `textOf` its letter.
    std::string fill(const std::function<std::string(char)>& textOf) const;

private:
    std::string mText;
};

#endif
