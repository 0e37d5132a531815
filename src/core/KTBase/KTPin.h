// Keeps a published manager object from being deleted while calls use it.
#ifndef KTBASE_KTPIN_H
#define KTBASE_KTPIN_H

#include "KTBase/KTLock.h"

/// What a manager that can be pinned derives from.
struct KTPinned {
    unsigned int m_pins = 0;  // calls that use the object; guarded by the lock of its publication
    CKTEvent m_unpinned{true};
};

/// Holds the published object, if there is one, for a scope. Nothing is waited for under lock.
template <typename T>
class KTPin {
public:
    KTPin(CKTMutex& lock, T* const& published) : m_lock(lock) {
        CKTGuard hold(m_lock);
        m_object = published;
        if (m_object != nullptr)
            ++m_object->m_pins;
    }
    ~KTPin() {
        if (m_object == nullptr)
            return;
        CKTGuard hold(m_lock);
        if (--m_object->m_pins == 0)
            m_object->m_unpinned.Set();
    }
    KTPin(const KTPin&) = delete;
    KTPin& operator=(const KTPin&) = delete;

    explicit operator bool() const { return m_object != nullptr; }
    T* operator->() const { return m_object; }

private:
    CKTMutex& m_lock;
    T* m_object;
};

/// Waits until no call uses object, which is unpublished or unlinked already: none can come to it.
inline void KTAwaitUnpinned(CKTMutex& lock, KTPinned& object) {
    constexpr unsigned int kStepMs = 10;
    for (;;) {
        {
            CKTGuard hold(lock);
            if (object.m_pins == 0)
                return;
        }
        object.m_unpinned.Wait(kStepMs);
    }
}

#endif
