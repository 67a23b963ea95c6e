#ifndef STATUSCTL_HEALTH_BACKUP_H
#define STATUSCTL_HEALTH_BACKUP_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/health/Inquiry.h"
#include "statusmanager/StatusTypes.h"

/// The state of a device in a file: what "dump --json" writes and "load" reads.
struct Backup
{
    StatusMap values;
    std::optional<Inquiry::Timers> timers; ///< nothing where the file has only values
    std::optional<Inquiry::Counters> counters;

    /// @throws Failure, with the reason, if the text is not of that shape
    static Backup read(const std::string& text);

    Json::Value toJson() const;

    /// Of all three.
    std::size_t names() const;
};

namespace MeasuresJson
{

/// {"boot":{"elapsed":5,"lastStarted":0,"running":false},...}
Json::Value of(const Inquiry::Timers& timers);

/// {"starts":3,...}
Json::Value of(const Inquiry::Counters& counters);

} // namespace MeasuresJson

#endif
