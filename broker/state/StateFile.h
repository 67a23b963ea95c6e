#ifndef BROKER_STATE_STATEFILE_H
#define BROKER_STATE_STATEFILE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "broker/base/Clock.h"
#include "broker/state/Database.h"
#include "broker/state/SavedState.h"
#include "broker/state/StateSync.h"

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
/// Nothing that is wrong with the file keeps the broker from serving. A file that cannot be read, or that is
/// damaged, is moved aside and never overwritten, also when that shows only later; then what is good, or all
/// that the broker holds by then, is written to a new one. So it is when somebody removes or replaces the
/// file while it is in use. Where nothing can be written, that is logged, tried again, and logged when it
/// works again; what has not been written is remembered until then.
class StateFile
{
public:
    /// Touches no file yet.
    /// @param keys globs (fnmatch) of the names of values, timers and counters that are kept; none: all
    /// @param everything tells all there is to keep, for a file that takes the place of the one that was
    /// loaded
    /// @param limits of what is loaded, so that no file can use up the memory
    StateFile(
        std::string path, StateSync sync, std::vector<std::string> keys,
        std::function<SavedState()> everything = [] { return SavedState(); },
        const Limits& limits = Limits());
    ~StateFile();

    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    /// Opens or makes the file, and waits for a moment while somebody else has locked it. Returns the kept
    /// state of the names that are kept now; nothing if there was none, or if it could not be read. Of a
    /// damaged file it returns every row whose checksum fits; they are in a new file when this returns. A
    /// file that can be read and not written is loaded, too, and written when it can be. To be called once,
    /// before the first commit. Timers that ran in another boot, or would start in the future of this one,
    /// are stopped at what they had.
    SavedState load(const BootMoment& now = BootMoment::now());

    /// Keeps what has changed, and that time has gone on to now. When it returns, and writing works, a broker
    /// that is killed does not take it back. Without changes only the time is kept; with changes of which no
    /// name is kept nothing is written. While it fails, it is tried again once a second at most. A file that
    /// could not be read by load(), and can be later, is moved aside if it holds anything, and a new one is
    /// begun.
    void commit(const SavedState& changes, const BootMoment& now = BootMoment::now());

    /// Keeps what has changed with the next commit.
    void remember(const SavedState& changes);
    template <typename Keeps>
    void mergeDetails(const SavedState& changes, const Keeps& keeps);

    /// The last one. It also looks after the file, and tries what has failed just now.
    void commitLast(const BootMoment& now = BootMoment::now());

    /// Whether something that has changed is still to be written: the next commit tries.
    bool isBehind() const { return !mPending.empty(); }

    /// Whether names may be forgotten. While nothing can be written, those that have been are remembered, and
    /// that has a bound: as many as there may be names.
    bool mayForget() const;

    /// Whether what was loaded was written within this boot.
    bool isOfThisBoot() const { return mIsOfThisBoot; }

    /// How often something has been written.
    uint64_t commits() const { return mCommits; }

    /// How often the file could not be opened, moved aside or written, each attempt counted.
    uint64_t errors() const { return mErrors; }

private:
    /// How it stands with the file. The report is the log line that changes are lost when the broker ends.
    enum class Stage
    {
        Closed,  ///< not open, not reported: the next commit opens it and adds to what it holds
        Serving, ///< open, and the last write worked
        Failing, ///< open, reported: what is to be written is tried again
        Shut,    ///< not open, reported: what it holds is in use, and is added to when it can be opened
        Missed, ///< not open, reported: what it holds is not in use, and is moved aside when it can be opened
    };

    /// The content of the path: neither member if nothing can be read now.
    struct Found
    {
        std::unique_ptr<Database> database; ///< open for writing
        std::optional<Database::Contents> contents;
        bool isSaved =
            false; ///< whether the contents were in a damaged file, and are not in the database yet
    };

    bool isReported() const { return mStage != Stage::Closed && mStage != Stage::Serving; }

    // Each of these goes from one stage to the next.
    void opened(std::unique_ptr<Database> database);
    void written();
    void failed(const std::string& reason);
    void missed();
    void dropped();

    bool isKept(const std::string& name) const;
    Found open(std::chrono::milliseconds patience, const BootMoment& now);
    Found openFile(std::chrono::milliseconds patience, const BootMoment& now);
    void beginAnew(Found& found, std::chrono::milliseconds patience, const BootMoment& now);
    std::optional<Database::Contents> readOnly(const BootMoment& now) const;
    void reopen(const BootMoment& now);
    void replace(const std::string& reason, const BootMoment& now);
    void lookAfterIt(const BootMoment& now);
    bool mayMoveAside();
    bool moveAside(const std::string& problem, const std::string& outcome = "");
    void save(SavedState state);
    void stopTimers(Database::Contents& contents, const BootMoment& now);
    SavedState kept(SavedState state) const;
    void write(const BootMoment& now);

    const std::string mPath;
    const StateSync mSync;
    const std::vector<std::string> mKeys;
    const std::function<SavedState()> mEverything;
    const Limits mLimits;
    Stage mStage = Stage::Closed;
    std::unique_ptr<Database> mDatabase; // while it is Serving or Failing
    SavedState mPending;                 // changed and not written yet
    TimePoint mNextAttempt{};            // of what has failed
    TimePoint mNextLook{};               // for whether it is still there
    TimePoint mNextReplacement{};        // of a file that is damaged or replaced while it is used
    bool mIsOfThisBoot = false;
    uint64_t mCommits = 0;
    uint64_t mErrors = 0;
};

#endif
