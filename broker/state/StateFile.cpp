#include "broker/state/StateFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <sys/stat.h>
#include <utility>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// Long enough for a person who looks into the file, short enough for a device that starts.
constexpr std::chrono::milliseconds startPatience{1500};

template <typename Map, typename Keeps>
void keepOnly(Map& map, const Keeps& keeps)
{
    for (auto entry = map.begin(); entry != map.end();)
        entry = keeps(entry->first) ? std::next(entry) : map.erase(entry);
}

// Adds changes, which replace earlier ones. The file may hold a forgotten name even if that name is not kept
// now: other names may have been kept before.
template <typename Map, typename Keeps>
void merge(const Map& changes, const SavedState::Gone::Names& changesGone, Map& into,
           SavedState::Gone::Names& intoGone, const Keeps& keeps)
{
    for (const std::string& name : changesGone)
    {
        into.erase(name);
        intoGone.insert(name);
    }
    for (const auto& [name, value] : changes)
    {
        if (!keeps(name))
            continue;
        into.insert_or_assign(name, value);
        intoGone.erase(name);
    }
}

// Adds what was saved, unless it has changed or been forgotten since.
template <typename Map>
void addSaved(Map& saved, Map& into, const SavedState::Gone::Names& gone)
{
    keepOnly(saved, [&](const std::string& name) { return gone.count(name) == 0; });
    into.merge(saved);
}

// Running timers continue within the boot in which they were started. After it, they are stopped with their
// time at the last write. Returns whether the timer was stopped.
bool bringInto(const BootMoment& now, const Database::Contents& contents, SavedState::Timer& timer)
{
    if (timer.spanStart == 0)
        return false;
    const bool sameBoot = !now.bootId.empty() && contents.bootId == now.bootId; // empty: unknown
    if (sameBoot && timer.spanStart <= now.microseconds)
        return false;
    if (!sameBoot && contents.microseconds > timer.spanStart)
        timer.accumulated += contents.microseconds - timer.spanStart;
    timer.spanStart = 0;
    return true;
}

// Also true for a link that leads nowhere: renaming would replace it.
bool isTaken(const std::string& name)
{
    struct stat status
    {
    };
    return lstat(name.c_str(), &status) == 0;
}

// A name that neither a file nor its log has: path.bad, path.bad.1 and so on.
std::string freeName(const std::string& path)
{
    std::string name = path + ".bad";
    for (int number = 1; isTaken(name) || isTaken(name + "-wal") || isTaken(name + "-journal"); ++number)
        name = path + ".bad." + std::to_string(number);
    return name;
}

// Log text: what happens to the rows of a damaged file.
std::string outcomeOf(const Database::Contents& contents)
{
    const std::size_t kept = contents.state.values.size() + contents.state.timers.size() +
                             contents.state.counters.size() + contents.state.details.size();
    std::string lost = std::to_string(contents.lostRows);
    if (contents.mayLackRows)
        lost = contents.lostRows == 0 ? "an unknown number" : lost + " or more";
    return "; " + std::to_string(kept) + " rows kept, " + lost + " lost";
}

// New files are for their owner only. But files may have been copied here, or their mode changed.
void closeToOthers(const std::string& path)
{
    constexpr mode_t allowed = S_IRUSR | S_IWUSR | S_IRGRP;
    struct stat status
    {
    };
    if (lstat(path.c_str(), &status) != 0 || (status.st_mode & ACCESSPERMS & ~allowed) == 0)
        return;
    if (chmod(path.c_str(), status.st_mode & allowed) != 0)
        OV_LOG(2, "State file [%s] stays accessible to others: %s", path.c_str(), strerror(errno));
}

std::string readBootId()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

} // namespace

BootMoment BootMoment::now()
{
    // Read only once: without a free descriptor, a later call would find no boot id.
    static const std::string bootId = readBootId();
    BootMoment moment;
    moment.bootId = bootId;
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    moment.microseconds = static_cast<uint64_t>(time.count());
    return moment;
}

StateFile::StateFile(std::string path, StateSync sync, std::vector<std::string> keys,
                     std::function<SavedState()> everything, const Limits& limits)
    : mPath(std::move(path)), mSync(sync), mKeys(std::move(keys)), mEverything(std::move(everything)),
      mLimits(limits)
{
}

StateFile::~StateFile() = default;

bool StateFile::isKept(const std::string& name) const
{
    return mKeys.empty() ||
           std::any_of(mKeys.begin(), mKeys.end(),
                       [&](const std::string& glob) { return fnmatch(glob.c_str(), name.c_str(), 0) == 0; });
}

SavedState StateFile::load(const BootMoment& now)
{
    if (now.bootId.empty())
        OV_LOG(2, "The kernel's id of this boot is unknown: timers will stop when the broker is restarted");
    Found found = open(startPatience, now);
    if (!found.contents)
        found.contents = readOnly(now);
    if (found.database)
        opened(std::move(found.database));
    else if (!found.contents)
        missed();
    Database::Contents contents = std::move(found.contents).value_or(Database::Contents());
    if (contents.excessRows != 0)
        OV_LOG(2, "State file [%s]: rows beyond the limits are not loaded, %zu or more", mPath.c_str(),
               contents.excessRows);
    mIsOfThisBoot = !now.bootId.empty() && contents.bootId == now.bootId;
    stopTimers(contents, now);
    if (found.isSaved && !contents.state.empty())
    {
        save(contents.state);
        write(now);
    }
    return kept(std::move(contents.state));
}

void StateFile::stopTimers(Database::Contents& contents, const BootMoment& now)
{
    for (auto& [name, timer] : contents.state.timers)
    {
        // Written with the next moment; with the old one, it would look like a timer running in this boot.
        if (bringInto(now, contents, timer))
            mPending.timers[name] = timer;
    }
}

SavedState StateFile::kept(SavedState state) const
{
    const auto keeps = [this](const std::string& name) { return isKept(name); };
    keepOnly(state.values, keeps);
    keepOnly(state.details, keeps);
    keepOnly(state.timers, keeps);
    keepOnly(state.counters, keeps);
    return state;
}

void StateFile::commit(const SavedState& changes, const BootMoment& now)
{
    remember(changes);
    if (mPending.empty() && !changes.empty())
        return; // no changed name is kept
    // A failed write is not tried again with every change.
    if (isReported() && Clock::now() < mNextAttempt)
        return;
    if (!mDatabase)
        reopen(now);
    write(now);
}

void StateFile::commitLast(const BootMoment& now)
{
    mNextAttempt = mNextLook = mNextReplacement = TimePoint();
    commit({}, now);
}

void StateFile::remember(const SavedState& changes)
{
    const auto keeps = [this](const std::string& name) { return isKept(name); };
    SavedState::Gone& gone = mPending.gone;
    merge(changes.values, changes.gone.values, mPending.values, gone.values, keeps);
    mergeDetails(changes, keeps);
    merge(changes.timers, changes.gone.timers, mPending.timers, gone.timers, keeps);
    merge(changes.counters, changes.gone.counters, mPending.counters, gone.counters, keeps);
}

// Details are removed together with their values.
template <typename Keeps>
void StateFile::mergeDetails(const SavedState& changes, const Keeps& keeps)
{
    for (const std::string& name : changes.gone.values)
        mPending.details.erase(name);
    for (const auto& [name, detail] : changes.details)
    {
        if (keeps(name))
            mPending.details.insert_or_assign(name, detail);
    }
}

bool StateFile::mayForget() const
{
    return mPending.gone.size() < mLimits.keys + mLimits.timers + mLimits.counters;
}

// Values saved from a damaged file are written to the new one, unless they have changed since.
void StateFile::save(SavedState state)
{
    addSaved(state.values, mPending.values, mPending.gone.values);
    addSaved(state.details, mPending.details, mPending.gone.values);
    addSaved(state.timers, mPending.timers, mPending.gone.timers);
    addSaved(state.counters, mPending.counters, mPending.gone.counters);
}

void StateFile::write(const BootMoment& now)
{
    if (mDatabase && Clock::now() >= mNextLook)
        lookAfterIt(now);
    constexpr int attempts = 2; // the second attempt is into a new file
    for (int attempt = 1; mDatabase && attempt <= attempts; ++attempt)
    {
        try
        {
            mDatabase->write(mPending, now.bootId, now.microseconds);
            mPending = SavedState();
            ++mCommits;
            return written();
        }
        catch (const DatabaseError& error)
        {
            if (!error.isUnreadable() || !mayMoveAside())
                return failed(error.what());
            replace(error.what(), now);
        }
    }
}

// ---------------------------------------------------------------------------------------------- the stages

void StateFile::opened(std::unique_ptr<Database> database)
{
    // After a failure, the file counts as working only after a write.
    mStage = isReported() ? Stage::Failing : Stage::Serving;
    mDatabase = std::move(database);
}

void StateFile::written()
{
    if (isReported())
        OV_LOG(2, "State file [%s] can be written again", mPath.c_str());
    mStage = Stage::Serving;
}

void StateFile::failed(const std::string& reason)
{
    constexpr std::chrono::seconds pause{1};
    mNextAttempt = Clock::now() + pause;
    ++mErrors;
    if (isReported())
        return;
    OV_LOG(0, "State file [%s]: %s; changes will be lost when the broker ends", mPath.c_str(),
           reason.c_str());
    mStage = mDatabase ? Stage::Failing : Stage::Shut;
}

void StateFile::missed()
{
    mStage = Stage::Missed;
    mDatabase.reset();
}

void StateFile::dropped()
{
    mStage = isReported() ? Stage::Shut : Stage::Closed;
    mDatabase.reset();
}

// ------------------------------------------------------------------------------------------------ the file

// Moves an unreadable or damaged file aside, and starts a new one.
StateFile::Found StateFile::open(std::chrono::milliseconds patience, const BootMoment& now)
{
    Found found;
    std::string outcome;
    std::string problem;
    try
    {
        found = openFile(patience, now);
        if (found.contents->damage.empty())
            return found;
        problem = "is damaged (" + found.contents->damage + ')';
        outcome = outcomeOf(*found.contents);
    }
    catch (const DatabaseError& error)
    {
        problem = error.what();
        if (!error.isUnreadable())
            return failed(problem), Found();
        problem = "cannot be read (" + problem + ')';
    }
    found.database.reset();
    if (moveAside(problem, outcome))
        beginAnew(found, patience, now);
    return found;
}

StateFile::Found StateFile::openFile(std::chrono::milliseconds patience, const BootMoment& now)
{
    Found found;
    found.database = std::make_unique<Database>(mPath, mSync, patience, mLimits);
    found.contents = found.database->read(now.bootId);
    closeToOthers(mPath);
    closeToOthers(mPath + "-wal");
    return found;
}

// Starts a file in place of the one that was moved aside.
void StateFile::beginAnew(Found& found, std::chrono::milliseconds patience, const BootMoment& now)
{
    try
    {
        Found another = openFile(patience, now);
        if (!another.contents->damage.empty())
            return failed("is damaged (" + another.contents->damage + ')');
        found.database = std::move(another.database);
        found.isSaved = found.contents.has_value();
        if (!found.contents)
            found.contents = std::move(another.contents);
    }
    catch (const DatabaseError& error)
    {
        failed(error.what());
    }
}

// Returns nothing if that fails, too.
std::optional<Database::Contents> StateFile::readOnly(const BootMoment& now) const
{
    try
    {
        Database::Contents contents = Database::readOnly(mPath, now.bootId, mLimits);
        if (!contents.damage.empty())
            OV_LOG(0, "State file [%s] is damaged (%s)%s", mPath.c_str(), contents.damage.c_str(),
                   outcomeOf(contents).c_str());
        return contents;
    }
    catch (const DatabaseError&)
    {
        return std::nullopt; // why the file cannot be opened is logged already
    }
}

// Tries again. If load() could not read the file, its content is not mixed with the state that started
// without it.
void StateFile::reopen(const BootMoment& now)
{
    constexpr std::chrono::milliseconds none{0}; // the broker is serving
    Found found = open(none, now);
    const bool isMissed = mStage == Stage::Missed;
    if (isMissed && found.database && !found.isSaved && !found.contents->state.empty())
    {
        found = Found();
        if (moveAside("does not hold the current state of the broker"))
            found = open(none, now);
    }
    if (!found.database)
        return;
    opened(std::move(found.database));
    if (found.isSaved && !isMissed)
        save(std::move(found.contents->state));
    remember(mEverything()); // the file may be new, or have been written by others meanwhile
}

// The open file has turned out to be unreadable.
void StateFile::replace(const std::string& reason, const BootMoment& now)
{
    ++mErrors;
    mDatabase->leaveAsItIs();
    dropped();
    if (moveAside("cannot be read (" + reason + ')'))
        reopen(now);
}

// Writing to a removed or replaced file still succeeds, so only a look finds that out.
void StateFile::lookAfterIt(const BootMoment& now)
{
    constexpr std::chrono::seconds pause{1}; // rather than with every commit
    mNextLook = Clock::now() + pause;
    if (mDatabase->isInPlace())
        return;
    mDatabase->leaveAsItIs();
    failed("removed or replaced while in use");
    missed();
    const bool hasSuccessor = isTaken(mPath) || isTaken(mPath + "-wal");
    if (hasSuccessor && !mayMoveAside())
        mNextAttempt = mNextReplacement;
    else
        reopen(now);
}

// Once an hour. Storage that damages everything, or a program that replaces the file repeatedly, must not
// fill the disk with files moved aside.
bool StateFile::mayMoveAside()
{
    constexpr std::chrono::hours pause{1};
    if (Clock::now() < mNextReplacement)
        return false;
    mNextReplacement = Clock::now() + pause;
    return true;
}

// Returns false if a file cannot be moved.
bool StateFile::moveAside(const std::string& problem, const std::string& outcome)
{
    const std::string aside = freeName(mPath);
    // The log beside the file holds the last writes. It is moved first: SQLite would use a log left behind
    // for the new file.
    for (const char* suffix : {"-wal", "-journal", ""})
    {
        if (rename((mPath + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT)
        {
            failed(problem + ", and cannot move [" + mPath + suffix + "] aside: " + strerror(errno));
            return false;
        }
    }
    OV_LOG(0, "State file [%s] %s, moved to [%s]%s", mPath.c_str(), problem.c_str(), aside.c_str(),
           outcome.c_str());
    return true;
}
