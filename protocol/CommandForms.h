#ifndef PROTOCOL_COMMANDFORMS_H
#define PROTOCOL_COMMANDFORMS_H

#include <algorithm>
#include <array>
#include <string_view>

#include "protocol/BrokerDocuments.h"

/// The shapes of posts, requests and notifications, for reading them.
namespace BrokerProtocol
{

enum class Shape
{
    Text,        // "<text>"
    Texts,       // ["<text>",...]
    Members,     // {"<name>":"<value>",...}
    Number,      // <number>
    NamedNumber, // {"<name>":<number>}
};

struct Form
{
    std::string_view name;
    Operation operation;
    Shape shape;
};

// In the order of Operation, as are the requests: nameOf() finds a form by its place.
inline constexpr std::array<Form, 9> postForms{{
    {Key::updateSystemTime, Operation::UpdateSystemTime, Shape::Number},
    {Key::postStatus, Operation::PostStatus, Shape::Members},
    {Key::resetStatus, Operation::ResetStatus, Shape::Texts},
    {Key::postEvent, Operation::PostEvent, Shape::Members},
    {Key::startTimer, Operation::StartTimer, Shape::Text},
    {Key::stopTimer, Operation::StopTimer, Shape::Text},
    {Key::resetTimer, Operation::ResetTimer, Shape::Text},
    {Key::restartTimer, Operation::RestartTimer, Shape::Text},
    {Key::setCounterValue, Operation::SetCounterValue, Shape::NamedNumber},
}};

inline constexpr std::array<Form, 17> requestForms{{
    {Key::getClientInfo, Operation::GetClientInfo, Shape::Text},
    {Key::getClientInfoValue, Operation::GetClientInfoValue, Shape::Text},
    {Key::getClientInfoValues, Operation::GetClientInfoValues, Shape::Texts},
    {Key::getTimerElapsed, Operation::GetTimerElapsed, Shape::Text},
    {Key::getTimerLastStarted, Operation::GetTimerLastStarted, Shape::Text},
    {Key::getCounterValue, Operation::GetCounterValue, Shape::Text},
    {Key::incrementCounter, Operation::IncrementCounter, Shape::Text},
    {Key::getBrokerStatistics, Operation::GetBrokerStatistics, Shape::Text},
    {Key::getBrokerClients, Operation::GetBrokerClients, Shape::Text},
    {Key::getPolicyDecision, Operation::GetPolicyDecision, Shape::Texts},
    {Key::getStatusDetails, Operation::GetStatusDetails, Shape::Texts},
    {Key::forgetStatus, Operation::ForgetStatus, Shape::Texts},
    {Key::forgetTimers, Operation::ForgetTimers, Shape::Texts},
    {Key::forgetCounters, Operation::ForgetCounters, Shape::Texts},
    {Key::getTimers, Operation::GetTimers, Shape::Text},
    {Key::getCounters, Operation::GetCounters, Shape::Text},
    {Key::setTimer, Operation::SetTimer, Shape::Texts},
}};

template <std::size_t count>
constexpr bool areInOrder(const std::array<Form, count>& forms, Operation first, Operation last)
{
    auto expected = static_cast<std::size_t>(first);
    for (const Form& form : forms)
    {
        if (static_cast<std::size_t>(form.operation) != expected++)
            return false;
    }
    return expected == static_cast<std::size_t>(last) + 1;
}

static_assert(areInOrder(postForms, Operation::UpdateSystemTime, Operation::SetCounterValue));
static_assert(areInOrder(requestForms, Operation::GetClientInfo, Operation::SetTimer));

// A notification is read as the post that it reports.
inline constexpr std::array<Form, 2> updateForms{{
    {Key::statusUpdate, Operation::PostStatus, Shape::Members},
    {Key::eventUpdate, Operation::PostEvent, Shape::Members},
}};

template <class Forms>
const Form* findForm(const Forms& forms, std::string_view name)
{
    const auto form =
        std::find_if(forms.begin(), forms.end(), [&](const Form& each) { return each.name == name; });
    return form == forms.end() ? nullptr : &*form;
}

} // namespace BrokerProtocol

#endif
