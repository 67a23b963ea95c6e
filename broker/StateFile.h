#ifndef BROKER_STATEFILE_H
#define BROKER_STATEFILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "broker/Clock.h"
#include "broker/Database.h"
#include "broker/Options.h"
#include "broker/SavedState.h"

/// The moment of this boot: running timers go on over a restart of the broker, not over one of the device.
struct BootMoment
{
    std::string bootId;    ///< the kernel's id of this boot
    uint64_t microseconds; ///< on the monotonic clock

    /// This one. The id is empty if the kernel does not tell it: then no timer goes on over a restart.
    static BootMoment now();
};

/// Keeps the state in an SQLite database, so that a broker that is started again goes on where the last one
/// was ended or killed.
///
/// Nothing that is wrong with the file keeps the broker from serving. A file that cannot be read is moved
/// aside and never overwritten. Where nothing can be written, that is logged, tried again, and logged when it
/// works again; what has not been written is remembered until then.
class StateFile
{
public:
    /// Touches no file yet.
    /// @param keys globs (fnmatch) of the names of values, timers and counters that are kept; none: all
    StateFile(std::string path, StateSync sync, std::vector<std::string> keys);
    ~StateFile();

    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    /// Opens or makes the file. What was kept, of the names that are kept now; nothing if there was none, or
    /// if it could not be read. To be called once, before the first commit. Timers that ran in another boot,
    /// or would start in the future of this one, are stopped at what they had.
    SavedState load(const BootMoment& now = BootMoment::now());

    /// Keeps what has changed, and that time has gone on to now. When it returns, and writing works, a broker
    /// that is killed does not take it back. Without changes only the time is kept; with changes of which no
    /// name is kept nothing is written. While it fails, it is tried again once a second at most. A file that
    /// can be opened only later than load() is moved aside if it holds anything, and a new one is begun.
    void commit(const SavedState& changes, const BootMoment& now = BootMoment::now());

    /// How often something has been written.
    uint64_t commits() const { return mCommits; }

    /// How often the file could not be opened, moved aside or written, each attempt counted.
    uint64_t errors() const { return mErrors; }

private:
    bool isKept(const std::string& name) const;
    Database::Contents open();
    void reopen();
    bool moveAside(const std::string& reason);
    void write(const BootMoment& now);
    void succeeded();
    void failed(const std::string& reason);

    std::string mPath;
    StateSync mSync;
    std::vector<std::string> mKeys;
    std::unique_ptr<Database> mDatabase; // null while it cannot be opened
    SavedState mPending;                 // changed and not written yet
    TimePoint mNextAttempt{};            // when it fails
    bool mFails = false;
    bool mMissed = false; // it could not be had when it was to be loaded
    uint64_t mCommits = 0;
    uint64_t mErrors = 0;
};

#endif
