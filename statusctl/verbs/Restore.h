#ifndef STATUSCTL_VERBS_RESTORE_H
#define STATUSCTL_VERBS_RESTORE_H

#include <map>
#include <string>
#include <vector>

#include "statusctl/device/Device.h"
#include "statusctl/health/Backup.h"
#include "statusctl/verbs/Names.h"

/// Brings a device to the state in a backup, for "load".
class Restore
{
public:
    /// Connects. Settings and backup must outlive it.
    /// @throws Failure if no broker listens
    Restore(const Settings& settings, const Backup& backup);

    /// Posts everything, and reads it back. Goes on after a refusal.
    /// @throws Failure with the names that the broker has not taken
    void post();

    /// Posts everything, and then removes the names that the backup lacks. Removes nothing unless the broker
    /// has taken everything: else the old state would be lost, and the new state would not be there. Sees
    /// only names that this client may see.
    /// @returns the number of removed names
    /// @throws Failure as post(), and with the names that are still there
    std::size_t replace();

private:
    struct NotTaken
    {
        Names::List names;
        std::map<std::string, std::string> unsent; // names that could not be sent, with the reasons
    };

    void postAll();
    void postValues();
    void postBatch(const StatusMap& batch, NotTaken& notTaken);
    void setCounters(const Inquiry::Counters& counters);
    void setTimers(const Inquiry::Timers& timers);
    std::size_t removeOthers();
    template <typename Map>
    std::size_t remove(Inquiry::Kind kind, const Map& present, const Map& kept);

    void note(const std::string& what, const std::string& list, const NotTaken& notTaken);
    void note(const std::string& problem, const std::string& what, const Names::List& names,
              const std::string& reason);
    void check(const std::string& consequence = {}) const;

    const Settings& mSettings;
    const Backup& mBackup;
    Device mDevice;
    std::string mProblems;   // for people
    Failure::Lists mRefused; // for programs
};

#endif
