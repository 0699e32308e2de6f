#include "PosixStorage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kx_mp4 {
namespace {

/// Repeats what a signal interrupted.
template <class Call>
auto Retry(Call&& call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

int ErrorOf(int result) {
    return result < 0 ? errno : 0;
}

class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() {
        if (m_number >= 0) ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_number; }
    bool IsOpen() const { return m_number >= 0; }

private:
    int m_number;
};

class PosixFile final : public IStorageFile {
public:
    explicit PosixFile(int descriptor) : m_file(descriptor) {}

    int WriteAt(uint64_t position, const uint8_t* bytes, size_t size) override {
        while (size != 0) {
            const ssize_t count = Retry(
                [&] { return ::pwrite(m_file.Get(), bytes, size, static_cast<off_t>(position)); });
            if (count < 0) return errno;
            if (count == 0) return EIO;
            bytes += count;
            position += static_cast<uint64_t>(count);
            size -= static_cast<size_t>(count);
        }
        return 0;
    }
    int Reserve(uint64_t from, uint64_t to) override {
#ifdef FALLOC_FL_KEEP_SIZE
        return ErrorOf(Retry([&] {
            return ::fallocate(m_file.Get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                               static_cast<off_t>(to - from));
        }));
#else
        static_cast<void>(from);
        static_cast<void>(to);
        return EOPNOTSUPP;
#endif
    }
    int Trim(uint64_t size) override {
        return ErrorOf(Retry([&] { return ::ftruncate(m_file.Get(), static_cast<off_t>(size)); }));
    }
    int Push() override {
        return ErrorOf(Retry([&] { return ::fdatasync(m_file.Get()); }));
    }

private:
    Descriptor m_file;
};

constexpr mode_t kMode = 0644;

}  // namespace

std::unique_ptr<IStorageFile> PosixStorage::Create(const std::string& path, int& error) {
    const int descriptor =
        Retry([&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode); });
    error = ErrorOf(descriptor);
    return error == 0 ? std::make_unique<PosixFile>(descriptor) : nullptr;
}

bool PosixStorage::Exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

int PosixStorage::Push(const std::string& path) {
    const Descriptor file(Retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!file.IsOpen()) return errno;
    return ErrorOf(Retry([&] { return ::fdatasync(file.Get()); }));
}

int PosixStorage::PushFolder(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor file(
        Retry([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!file.IsOpen()) return errno;
    const int error = ErrorOf(Retry([&] { return ::fsync(file.Get()); }));
    // Some network file systems have no such push; there is nothing that would replace it.
    return error == EINVAL ? 0 : error;
}

int PosixStorage::Remove(const std::string& path) {
    return ErrorOf(::unlink(path.c_str()));
}

}  // namespace kx_mp4
