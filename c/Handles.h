#ifndef C_HANDLES_H
#define C_HANDLES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "c/Handle.h"
#include "statusmanager/status.h"

namespace StatusC
{

/// The open statuses of the process. A status_t* is no address, but a place in this table and a number of its
/// use. So the use after the close is noticed, even from another thread at the same time.
///
/// Any thread.
class Handles
{
public:
    /// Never destroyed, because threads may use it until the process ends.
    static Handles& instance();

    /// @throws Failure(STATUS_EFULL)
    status_t* add(const std::shared_ptr<Handle>& handle);
    /// @throws Failure(STATUS_EINVAL) for null, Failure(STATUS_ECLOSED)
    std::shared_ptr<Handle> find(const status_t* status);
    /// As find(), and removes it.
    std::shared_ptr<Handle> remove(const status_t* status);

private:
    struct Place
    {
        void require(const status_t* status) const;

        std::mutex mutex; // guards the two below
        std::uintptr_t use = 1;
        std::shared_ptr<Handle> handle;
    };

    Handles() = default;

    Place& placeOf(const status_t* status);

    std::array<Place, STATUS_OPEN_MOST> mPlaces;
};

} // namespace StatusC

#endif
