#include "statusctl/verbs/Selection.h"

#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

constexpr const char* onlyStatus = "status";
constexpr const char* onlyEvents = "event";

Names::List everything()
{
    return {"*"};
}

} // namespace

Selection::Selection(CLI::App& command)
{
    command.add_option("KEY", mKeys, "Keys and globs to follow; everything if no --event is given either");
    command.add_option("--event", mEvents, "Events and globs to follow; may be given several times")
        ->type_name("NAME")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command.add_option("--only", mOnly, "Follow only values, or only events: all of them if none is named")
        ->type_name("status|event")
        ->check(Verbs::oneOf({onlyStatus, onlyEvents}));
    command.add_option("-n", mCount, "Exit after so many changes and events")
        ->type_name("COUNT")
        ->check(Verbs::wholeNumber(1));
}

void Selection::check() const
{
    Names::checkFilled(mKeys);
    Names::checkFilled(mEvents);
    if (mOnly == onlyEvents && !mKeys.empty())
        throw CLI::ValidationError("--only event excludes keys");
    if (mOnly == onlyStatus && !mEvents.empty())
        throw CLI::ValidationError("--only status excludes --event");
}

Pattern Selection::keys() const
{
    return Pattern(isEverything() && mOnly != onlyEvents ? everything() : mKeys);
}

Pattern Selection::events() const
{
    return Pattern(isEverything() && mOnly != onlyStatus ? everything() : mEvents);
}

bool Selection::wantsMoreAfter(const Change& change)
{
    mSeen += isUpdate(change.kind) ? 1U : 0U;
    return mCount == 0 || mSeen < mCount;
}
