#include "broker/policy/PolicyCollector.h"

#include <algorithm>

PolicyCollector::PolicyCollector(const PolicyNames& names, std::vector<std::string>& errors)
    : mNames(names), mErrors(errors)
{
    mContent.whos.emplace_back().text = "anyone";
}

PolicyContent PolicyCollector::finished()
{
    mContent.rules.push_back(std::move(mDefault));
    if (mLeftOut != 0)
        mErrors.push_back("and " + std::to_string(mLeftOut) + " more errors");
    return std::move(mContent);
}

void PolicyCollector::addErrors(const std::string& file, std::vector<PolicyWord>& errors)
{
    std::stable_sort(errors.begin(), errors.end(),
                     [](const PolicyWord& one, const PolicyWord& other) { return one.line < other.line; });
    for (const PolicyWord& error : errors)
        addError(file + ":" + std::to_string(error.line) + ": " + error.text);
}

void PolicyCollector::addError(std::string text)
{
    if (mErrors.size() < PolicyLimits::errors)
        mErrors.push_back(std::move(text));
    else
        ++mLeftOut;
}

uint16_t PolicyCollector::indexOf(Who who)
{
    if (who.isAnyone())
        return 0;
    const auto [place, isNew] = mWhos.try_emplace(who.text, mContent.whos.size());
    if (isNew)
        mContent.whos.push_back(std::move(who));
    return static_cast<uint16_t>(place->second);
}

std::pair<std::size_t, bool> PolicyCollector::quotaOf(uid_t user, std::size_t quota)
{
    const auto [place, isNew] = mQuotas.try_emplace(user, quota);
    if (isNew)
        mContent.userQuotas.push_back({user, quota});
    return {place->second, place->second == quota};
}
