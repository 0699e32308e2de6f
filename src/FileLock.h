/// @file
/// The lock that tells a running recording from one that was cut off.
#ifndef KX_MP4_FILELOCK_H
#define KX_MP4_FILELOCK_H

namespace kx_mp4 {

/// An advisory lock on an open file (flock), held until Release, destruction or the end of the
/// process, however it ends. It excludes others of this class and of any program that asks for
/// it, also in this process; it hinders nobody who does not ask. Not thread safe.
class FileLock {
public:
    FileLock() = default;
    ~FileLock() { Release(); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// Locks the file. The lock keeps the file open by a descriptor of its own, so that it
    /// outlives `file`.
    /// @return 0, or an error number: EWOULDBLOCK when somebody else holds it, ENOLCK, EOPNOTSUPP
    ///         and others when this file cannot be locked.
    int Take(int file);
    /// Gives the lock back; nothing without one.
    void Release();

    /// Whether somebody holds the lock of the file of that name. False without such a file and
    /// where files cannot be locked.
    static bool IsHeld(const char* path);

private:
    int m_file = -1;
};

}  // namespace kx_mp4

#endif  // KX_MP4_FILELOCK_H
