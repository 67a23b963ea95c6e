#ifndef BROKER_STATE_STATEFILE_H
#define BROKER_STATE_STATEFILE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "broker/state/Database.h"
#include "broker/state/SavedState.h"
#include "broker/state/StateSync.h"
#include "daemon/Clock.h"

/// A moment of this boot. Timers continue over a restart of the broker, but not of the device.
struct BootMoment
{
    std::string bootId;    ///< the kernel's id of this boot
    uint64_t microseconds; ///< on the monotonic clock

    /// The current moment. The id is empty if the kernel does not report it: then no timer continues over a
    /// restart.
    static BootMoment now();
};

/// Keeps the state in an SQLite database. A restarted broker continues where the last one ended or was
/// killed.
///
/// No fault of the file keeps the broker from serving. An unreadable or damaged file is moved aside and never
/// overwritten, even if the fault shows only later. Then a new file gets what is still good, or the broker's
/// whole current state. The same happens when the file is removed or replaced while it is in use. If writing
/// fails, that is logged, and tried again, and success is logged. Unwritten changes are remembered until
/// then.
class StateFile
{
public:
    /// Touches no file yet.
    /// @param keys globs (fnmatch) of the values, timers and counters to keep; none: all
    /// @param everything returns the whole state to keep, for a file that replaces the loaded one
    /// @param limits of the state that is loaded, so that no file can use up the memory
    StateFile(
        std::string path, StateSync sync, std::vector<std::string> keys,
        std::function<SavedState()> everything = [] { return SavedState(); },
        const Limits& limits = Limits());
    ~StateFile();

    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    /// Opens or creates the file. Waits for a moment if another process has locked it. Call this once, before
    /// the first commit.
    ///
    /// Returns the saved state of all names to keep; nothing if there was none, or it could not be read. From
    /// a damaged file it returns every row with a good checksum, and has saved them to a new file. A file
    /// that can be read but not written is loaded, too, and written as soon as that is possible. Timers that
    /// ran in another boot, or would start in the future, are stopped with their time so far.
    SavedState load(const BootMoment& now = BootMoment::now());

    /// Saves what has changed, and that time has reached `now`. On return, if writing works, the changes
    /// survive a kill of the broker. Without changes only the time is saved. If none of the changed names is
    /// kept, nothing is written.
    ///
    /// After a failure, it tries again at most once a second. If load() could not read the file, and it can
    /// be read later, it is moved aside if it holds anything. Then a new file is started.
    void commit(const SavedState& changes, const BootMoment& now = BootMoment::now());

    /// Saves these changes with the next commit.
    void remember(const SavedState& changes);

    /// The last commit. It also checks that the file is in place, and retries at once what has just failed.
    void commitLast(const BootMoment& now = BootMoment::now());

    /// Whether changes are still unwritten. The next commit tries to write them.
    bool isBehind() const { return !mPending.empty(); }

    /// Whether names may be forgotten. While writing fails, forgotten names are remembered, up to the number
    /// of names that may exist.
    bool mayForget() const;

    /// Whether the loaded state was written within this boot.
    bool isOfThisBoot() const { return mIsOfThisBoot; }

    /// How often anything has been written.
    uint64_t commits() const { return mCommits; }

    /// How often the file could not be opened, moved aside or written; every attempt counts.
    uint64_t errors() const { return mErrors; }

private:
    /// The condition of the file. The report is the log line that changes are lost when the broker ends.
    enum class Stage
    {
        Closed,  ///< not open, not reported: the next commit opens it and adds to its content
        Serving, ///< open, and the last write worked
        Failing, ///< open, reported: writing is retried
        Shut,    ///< not open, reported: its content is in use, and is added to when it can be opened
        Missed,  ///< not open, reported: its content is not in use, and is moved aside when it can be opened
    };

    /// The content at the path; neither member if nothing can be read now.
    struct Found
    {
        std::unique_ptr<Database> database; ///< open for writing
        std::optional<Database::Contents> contents;
        bool isSaved = false; ///< the contents came from a damaged file, and are not in the database yet
    };

    bool isReported() const { return mStage != Stage::Closed && mStage != Stage::Serving; }

    // ---- Transitions between the stages.
    void opened(std::unique_ptr<Database> database);
    void written();
    void failed(const std::string& reason);
    void missed();
    void dropped();

    template <typename Keeps>
    void mergeDetails(const SavedState& changes, const Keeps& keeps);
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
    std::unique_ptr<Database> mDatabase; // while Serving or Failing
    SavedState mPending;                 // changed and not written
    TimePoint mNextAttempt{};            // after a failure
    TimePoint mNextLook{};               // at whether the file is still in place
    TimePoint mNextReplacement{};        // of a file that was damaged or replaced while in use
    bool mIsOfThisBoot = false;
    uint64_t mCommits = 0;
    uint64_t mErrors = 0;
};

#endif
