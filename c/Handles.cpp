#include "c/Handles.h"

#include <utility>

#include "c/Failure.h"

namespace StatusC
{

namespace
{

using Lock = std::lock_guard<std::mutex>;

// Beyond, a status_t* has no room for it. Then use 1 comes again, after so many that nobody has an old one.
constexpr std::uintptr_t lastUse = UINTPTR_MAX / STATUS_OPEN_MOST;

// No object is there: the number is never used as an address.
status_t* written(std::uintptr_t use, std::size_t at)
{
    return reinterpret_cast<status_t*>(use * STATUS_OPEN_MOST + at);
}

std::uintptr_t numberOf(const status_t* status)
{
    return reinterpret_cast<std::uintptr_t>(status);
}

} // namespace

Handles& Handles::instance()
{
    static Handles& handles = *new Handles;
    return handles;
}

status_t* Handles::add(const std::shared_ptr<Handle>& handle)
{
    for (std::size_t at = 0; at < mPlaces.size(); ++at)
    {
        Place& place = mPlaces[at];
        const Lock lock(place.mutex);
        if (place.handle != nullptr)
            continue;
        place.handle = handle;
        return written(place.use, at);
    }
    throw Failure{STATUS_EFULL};
}

std::shared_ptr<Handle> Handles::find(const status_t* status)
{
    Place& place = placeOf(status);
    const Lock lock(place.mutex);
    place.require(status);
    return place.handle;
}

std::shared_ptr<Handle> Handles::remove(const status_t* status)
{
    Place& place = placeOf(status);
    const Lock lock(place.mutex);
    place.require(status);
    place.use = place.use % lastUse + 1;
    return std::exchange(place.handle, nullptr);
}

Handles::Place& Handles::placeOf(const status_t* status)
{
    if (status == nullptr)
        throw Failure{STATUS_EINVAL};
    return mPlaces[numberOf(status) % mPlaces.size()];
}

void Handles::Place::require(const status_t* status) const
{
    if (handle == nullptr || use != numberOf(status) / STATUS_OPEN_MOST)
        throw Failure{STATUS_ECLOSED};
}

} // namespace StatusC
