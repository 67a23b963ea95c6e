#ifndef VESK_COMMON_REFCOUNT_H
#define VESK_COMMON_REFCOUNT_H

#include <cstdint>

#include "common/Export.h"
#include "common/TrackedNew.h"

namespace Orvane
{

/// Base of objects that live as long as they have a holder. The count starts at 0: an object that never had a
/// holder is never destroyed automatically. The release of the last count destroys the object, on the
/// releasing thread. All counts of the process change under Mutex::mCriticalSection.
class OV_EXPORT RefCount : public Tracked
{
public:
    RefCount(const RefCount&) = delete;
    RefCount& operator=(const RefCount&) = delete;

    /// Adds a count. The caller must know that the object is alive: it made the object or holds another
    /// count. Any thread.
    void AddRef();

    /// Releases a count the caller holds. At 0, calls onRefCountZero(), without holding the lock. Any thread.
    /// The caller must not use the object afterwards.
    void Release();

    /// Called when the last count is gone. The default deletes the object.
    virtual void onRefCountZero();

    virtual ~RefCount();

protected:
    RefCount() = default;

    uint32_t mRefCount = 0; ///< Changed under Mutex::mCriticalSection.
};

/// Holds one count on a RefCount object, or nothing. Several threads may each have a SmartPtr to the same
/// object. Several threads may read one SmartPtr at once, but not while another thread assigns, moves or
/// destroys it.
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
    /// Takes over the count of `other`, which then holds nothing.
    SmartPtr(SmartPtr&& other) noexcept : mObject(other.mObject) { other.mObject = nullptr; }

    /// Holds the object of `other`, then releases the count that it held before.
    SmartPtr& operator=(SmartPtr other) noexcept
    {
        T* mine = mObject;
        mObject = other.mObject;
        other.mObject = mine;
        return *this;
    }

    /// Releases the count.
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
