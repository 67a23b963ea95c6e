#ifndef STATUSCTL_HEALTH_BACKUP_H
#define STATUSCTL_HEALTH_BACKUP_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/health/Inquiry.h"
#include "statusmanager/StatusTypes.h"

/// The state of a device in a file, as "dump --json" writes it and "load" reads it.
struct Backup
{
    StatusMap values;
    std::optional<Inquiry::Timers> timers; ///< nothing if the file has only values
    std::optional<Inquiry::Counters> counters;

    /// @throws Failure, with the reason, if the shape differs
    static Backup read(const std::string& text);

    Json::Value toJson() const;

    /// The number of values, timers and counters together.
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
