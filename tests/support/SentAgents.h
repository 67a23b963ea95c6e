#ifndef TESTS_SUPPORT_SENTAGENTS_H
#define TESTS_SUPPORT_SENTAGENTS_H

#include <string>
#include <typeinfo>
#include <vector>

/// Records the type of each agent sent in a program that links this, and passes the agent on.
namespace SentAgents
{

std::string nameOf(const std::type_info& type);

template <class Agent>
std::string nameOf()
{
    return nameOf(typeid(Agent));
}

void begin();
std::vector<std::string> end();

/// The types of the agents that the calling thread sends during `call`, in order.
template <class Call>
std::vector<std::string> of(Call call)
{
    begin();
    call();
    return end();
}

} // namespace SentAgents

#endif
