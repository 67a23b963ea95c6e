#ifndef BROKER_POLICY_POLICYCONTENT_H
#define BROKER_POLICY_POLICYCONTENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "broker/policy/Action.h"
#include "broker/policy/Glob.h"

/// A client, as far as rules are about it.
struct Subject
{
    std::optional<uid_t> user; ///< unless it is known, only rules for anyone concern the client
    std::vector<gid_t> groups;
    std::string service; ///< the whole name of the unit, "net.service"; empty if it is in none
};

/// The subjects of a rule. Of each kind that is named, the subject must have one.
struct Who
{
    std::string text; ///< "anyone", or "service net.service, user web"
    std::vector<std::string> services;
    std::vector<uid_t> users; ///< without names that are unknown: a rule for unknown users only is for nobody
    std::vector<gid_t> groups;
    bool namesServices = false;
    bool namesUsers = false;
    bool namesGroups = false;

    bool isAnyone() const { return !namesServices && !namesUsers && !namesGroups; }

    /// Whether the subject is one of them.
    bool has(const Subject& subject) const;
};

/// "net.*, wifi.state"
std::string textOf(const std::vector<Glob>& names);

struct PolicyRule
{
    bool isAllowed = true;
    uint16_t who = 0; ///< index in PolicyContent::whos
    Actions actions;
    std::vector<Glob> names; ///< none for every name, and for actions without a name
    std::string place;       ///< "FILE:LINE", empty for a default that no file sets

    bool isForEveryName() const;

    /// "deny post, reset of net.*"
    std::string text() const;
};

/// The share of one user. What is not set is not limited.
struct PolicyQuota
{
    std::optional<std::size_t> keys;
    std::optional<std::size_t> bytes;
    std::optional<std::size_t> connections;
    std::optional<std::size_t> postsPerSecond;
    std::string place;
    std::string text; ///< "user web: 1000 keys, 65536 bytes"

    /// "1000 keys, 65536 bytes"
    std::string limits() const;
};

/// Values that end with the client that posted them last.
struct PolicyTie
{
    static constexpr std::chrono::milliseconds usualGrace{2000};

    std::vector<Glob> names;
    std::string becomes; ///< empty to reset the key
    std::chrono::milliseconds grace = usualGrace;
    std::string place;
};

/// All files of a policy, read and checked.
struct PolicyContent
{
    struct UserQuota
    {
        uid_t user;
        std::size_t quota; ///< index in quotas
    };

    bool isAudit = false;          ///< nothing is refused: what would be is logged
    std::string modePlace;         ///< where it is set, if anywhere
    std::vector<Who> whos;         ///< each once; the first is anyone
    std::vector<PolicyRule> rules; ///< in their order; the last is the default, for anything
    std::vector<PolicyQuota> quotas;
    std::vector<UserQuota> userQuotas;
    std::optional<std::size_t> usualQuota; ///< of each user that has none of its own
    std::vector<PolicyTie> ties;
    std::vector<std::string> warnings; ///< "FILE:LINE: ..."
};

#endif
