#include "statusctl/verbs/Restore.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>
#include <set>
#include <unistd.h>

#include "statusctl/text/Text.h"
#include "statusctl/verbs/Taken.h"

namespace
{

/// A progress bar on standard error, if that is a terminal.
class ProgressBar
{
public:
    explicit ProgressBar(const Settings& settings, std::size_t total)
        : mTotal(total), mIsShown(!settings.quiet && !settings.isJson() && isatty(STDERR_FILENO) != 0)
    {
    }
    ~ProgressBar()
    {
        if (mIsShown)
            std::fprintf(stderr, "\r\x1b[K");
    }

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void show(std::size_t done) const
    {
        if (!mIsShown)
            return;
        constexpr std::size_t width = 40;
        const std::size_t full = mTotal == 0 ? width : done * width / mTotal;
        const std::string bar = std::string(full, '#') + std::string(width - full, '.');
        std::fprintf(stderr, "\r[%s] %zu of %zu", bar.c_str(), done, mTotal);
    }

private:
    const std::size_t mTotal;
    const bool mIsShown;
};

// Returns why the post was not sent, or nothing.
template <typename Send>
std::optional<std::string> reasonNotToSend(Send send)
{
    try
    {
        send();
        return std::nullopt;
    }
    catch (const Unsendable& failure)
    {
        return failure.what();
    }
}

} // namespace

Restore::Restore(const Settings& settings, const Backup& backup)
    : mSettings(settings), mBackup(backup), mDevice(settings)
{
}

void Restore::post()
{
    postAll();
    check();
}

std::size_t Restore::replace()
{
    postAll();
    check("; nothing was removed");
    const std::size_t removed = removeOthers();
    check();
    return removed;
}

// ---------------------------------------------------------------------------------------------------- post

void Restore::postAll()
{
    postValues();
    if (mBackup.counters)
        setCounters(*mBackup.counters);
    if (mBackup.timers)
        setTimers(*mBackup.timers);
}

void Restore::postValues()
{
    constexpr std::size_t batchBytes = std::size_t{32} * 1024;
    const ProgressBar progress(mSettings, mBackup.values.size());
    NotTaken notTaken;
    StatusMap batch;
    std::size_t bytes = 0;
    std::size_t done = 0;
    for (const auto& [key, value] : mBackup.values)
    {
        batch.emplace_hint(batch.end(), key, value);
        bytes += key.size() + value.size();
        ++done;
        if (bytes < batchBytes && done != mBackup.values.size())
            continue;
        postBatch(batch, notTaken);
        progress.show(done);
        batch.clear();
        bytes = 0;
    }
    note("value", "refused", notTaken);
}

// Confirms the batch before the next one, so that none is dropped on the way.
void Restore::postBatch(const StatusMap& batch, NotTaken& notTaken)
{
    const StatusKeys keys = Names::keysOf(batch);
    const StatusMap before = mDevice.values(keys);
    if (reasonNotToSend([&] { mDevice.post(batch); })) // then one by one
    {
        for (const auto& value : batch)
        {
            if (const auto reason = reasonNotToSend([&] { mDevice.post({value}); }))
                notTaken.unsent[value.first] = *reason;
        }
    }
    mDevice.confirm();
    const Names::List refused = Taken::refused(batch, before, mDevice.values(keys));
    notTaken.names.insert(notTaken.names.end(), refused.begin(), refused.end());
}

void Restore::setCounters(const Inquiry::Counters& counters)
{
    if (counters.empty())
        return;
    const Inquiry::Counters before = Inquiry::counters(mSettings);
    NotTaken notTaken;
    for (const auto& counter : counters)
    {
        if (const auto reason = reasonNotToSend([&] { mDevice.setCounter(counter.first, counter.second); }))
            notTaken.unsent[counter.first] = *reason;
    }
    mDevice.confirm();
    notTaken.names = Taken::refused(counters, before, Inquiry::counters(mSettings));
    note("counter", "refusedCounters", notTaken);
}

void Restore::setTimers(const Inquiry::Timers& timers)
{
    note("timer", "refusedTimers", {Inquiry::setTimers(mSettings, timers), {}});
}

// -------------------------------------------------------------------------------------------------- remove

std::size_t Restore::removeOthers()
{
    const StatusMap values = mDevice.ask([](StatusManager& manager) { return manager.getClientInfo(); });
    std::size_t removed = remove(Inquiry::Kind::Values, values, mBackup.values);
    if (mBackup.timers)
        removed += remove(Inquiry::Kind::Timers, Inquiry::timers(mSettings), *mBackup.timers);
    if (mBackup.counters)
        removed += remove(Inquiry::Kind::Counters, Inquiry::counters(mSettings), *mBackup.counters);
    return removed;
}

template <typename Map>
std::size_t Restore::remove(Inquiry::Kind kind, const Map& present, const Map& kept)
{
    Names::List others;
    for (const auto& [name, value] : present)
    {
        if (kept.find(name) == kept.end())
            others.push_back(name);
    }
    const Names::List gone = Inquiry::forget(mSettings, kind, others);
    const std::set<std::string> isGone(gone.begin(), gone.end());
    const auto hasGone = [&](const std::string& name) { return isGone.count(Text::valid(name)) != 0; };
    others.erase(std::remove_if(others.begin(), others.end(), hasGone), others.end());
    note("not found, or denied by the policy:", "name", others, "");
    return gone.size();
}

// ------------------------------------------------------------------------------------------------ problems

void Restore::note(const std::string& what, const std::string& list, const NotTaken& notTaken)
{
    if (notTaken.names.empty())
        return;
    Names::List unsent;
    Names::List refused;
    std::partition_copy(notTaken.names.begin(), notTaken.names.end(), std::back_inserter(unsent),
                        std::back_inserter(refused),
                        [&](const std::string& name) { return notTaken.unsent.count(name) != 0; });
    if (!unsent.empty())
        note("cannot send", what, unsent, " (" + notTaken.unsent.at(unsent.front()) + ")");
    note("the broker refused", what, refused, " (see its log)");
    mRefused[list] = notTaken.names;
}

void Restore::note(const std::string& problem, const std::string& what, const Names::List& names,
                   const std::string& reason)
{
    if (!names.empty())
        mProblems += (mProblems.empty() ? "" : "; ") + problem + " " + Text::counted(names.size(), what) +
                     ", for example \"" + names.front() + "\"" + reason;
}

void Restore::check(const std::string& consequence) const
{
    if (!mProblems.empty())
        throw Failure(ExitCode::Failed, mProblems + consequence, mRefused);
}
