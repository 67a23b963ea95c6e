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
#include "daemon/Glob.h"

/// A client as rules see it.
struct Subject
{
    std::optional<uid_t> user; ///< if unknown, only rules for anyone apply to the client
    std::vector<gid_t> groups;
    std::string service; ///< the full name of the unit, "net.service"; empty if the client is in none
};

/// The subjects of a rule. A client must match one of each kind that is named.
struct Who
{
    std::string text; ///< "anyone", or "service net.service, user web"
    std::vector<std::string> services;
    std::vector<uid_t> users; ///< only known ones: a rule for unknown users only applies to no client
    std::vector<gid_t> groups;
    bool namesServices = false;
    bool namesUsers = false;
    bool namesGroups = false;

    bool isAnyone() const { return !namesServices && !namesUsers && !namesGroups; }

    /// Whether the subject is among them.
    bool has(const Subject& subject) const;
};

/// "net.*, wifi.state"
std::string textOf(const std::vector<Glob>& names);

struct PolicyRule
{
    bool isAllowed = true;
    uint16_t who = 0; ///< index in PolicyContent::whos
    Actions actions;
    std::vector<Glob> names; ///< empty: for every name, and for actions without a name
    std::string place;       ///< "FILE:LINE"; empty for a default that no file sets

    bool isForEveryName() const;

    /// "deny post, reset of net.*"
    std::string text() const;
};

/// The quota of one user. A field that is not set is not limited.
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

    bool isAudit = false;          ///< nothing is refused; refusals are only logged
    std::string modePlace;         ///< where the mode is set, if anywhere
    std::vector<Who> whos;         ///< each once; the first is anyone
    std::vector<PolicyRule> rules; ///< in order; the last is the default, for anyone
    std::vector<PolicyQuota> quotas;
    std::vector<UserQuota> userQuotas;
    std::optional<std::size_t> usualQuota; ///< for each user without a quota of its own
    std::vector<PolicyTie> ties;
    std::vector<std::string> warnings; ///< "FILE:LINE: ..."
};

#endif
