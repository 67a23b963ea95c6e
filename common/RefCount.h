#ifndef VESK_COMMON_REFCOUNT_H
#define VESK_COMMON_REFCOUNT_H

#include <cstdint>

#include "common/Export.h"
#include "common/TrackedNew.h"

namespace Orvane
{

/// Base of objects that live as long as somebody holds a count on them. The count starts at 0: an object that
/// nobody ever held is not destroyed by itself. The release of the last count destroys the object, on the
/// releasing thread. All counts of the process change under Mutex::mCriticalSection.
class OV_EXPORT RefCount : public Tracked
{
public:
    RefCount(const RefCount&) = delete;
    RefCount& operator=(const RefCount&) = delete;

    /// Adds a count. Any thread that knows the object to be alive: its maker, or the holder of another count.
    void AddRef();

    /// Gives a count back; at 0, calls onRefCountZero() after the lock is dropped. Any thread that holds a
    /// count; the object must not be touched afterwards.
    void Release();

    /// Called when the last count is gone. The default deletes the object.
    virtual void onRefCountZero();

    virtual ~RefCount();

protected:
    RefCount() = default;

    uint32_t mRefCount = 0; ///< Changed under Mutex::mCriticalSection.
};

/// Holds one count on a RefCount object, or nothing. Several threads may each have a SmartPtr on the same
/// object. One SmartPtr is not to be shared: it may be read by several threads at once, but not while another
/// thread assigns, moves or destroys it.
template <class T>
class SmartPtr
{
public:
    SmartPtr() = default;

    /// Adds a count, unless the pointer is null.
    explicit SmartPtr(T* object) : mObject(object)
    {
        if (mObject != nullptr)
            mObject->AddRef();
    }

    /// Adds a count of its own.
    SmartPtr(const SmartPtr& other) : SmartPtr(other.mObject) {}
    /// Takes the other's count over; the other holds nothing then.
    SmartPtr(SmartPtr&& other) noexcept : mObject(other.mObject) { other.mObject = nullptr; }

    /// Gives back the count that it held, once the other object is held.
    SmartPtr& operator=(SmartPtr other) noexcept
    {
        T* mine = mObject;
        mObject = other.mObject;
        other.mObject = mine;
        return *this;
    }

    /// Gives the count back.
    ~SmartPtr()
    {
        if (mObject != nullptr)
            mObject->Release();
    }

    /// @{
    /// The object; null when nothing is held.
    T* get() const { return mObject; }
    T* operator->() const { return mObject; }
    /// @}
    /// The object; something must be held.
    T& operator*() const { return *mObject; }
    /// Whether something is held.
    explicit operator bool() const { return mObject != nullptr; }

private:
    T* mObject = nullptr;
};

} // namespace Orvane

#endif
