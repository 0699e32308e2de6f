/// @file
/// The muxer's mutex.
#ifndef KX_MP4_MLOCK_H
#define KX_MP4_MLOCK_H

#include <pthread.h>

/// A POSIX mutex with default attributes: not recursive.
class CMLock {
public:
    /// Nobody holds it.
    CMLock() { pthread_mutex_init(&m_mutex, nullptr); }
    virtual ~CMLock() { pthread_mutex_destroy(&m_mutex); }
    CMLock(const CMLock&) = delete;
    CMLock& operator=(const CMLock&) = delete;

    /// Waits for the mutex.
    void Lock() { pthread_mutex_lock(&m_mutex); }
    /// Takes the mutex when nobody holds it.
    bool TryLock() { return pthread_mutex_trylock(&m_mutex) == 0; }
    /// Gives it back; by the thread that holds it.
    void Unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex{};
};

/// Holds a CMLock for its own lifetime.
class CMAutoLock {
public:
    /// Waits for the mutex, which must outlive this object.
    explicit CMAutoLock(CMLock& section) : m_section(section) { m_section.Lock(); }
    virtual ~CMAutoLock() { m_section.Unlock(); }
    CMAutoLock(const CMAutoLock&) = delete;
    CMAutoLock& operator=(const CMAutoLock&) = delete;

private:
    CMLock& m_section;
};

#endif  // KX_MP4_MLOCK_H
