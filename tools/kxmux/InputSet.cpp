#include "InputSet.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "StopSignal.h"

namespace kxmux {
namespace {

/// A named pipe opens at once, its writer may come later; reads are waited for with poll.
int OpenDescriptor(const std::string& path) {
    if (path == Input::kStandardInput) return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

}  // namespace

Input::Input(InputSet& set, const std::string& path)
    : m_set(set), m_path(path), m_descriptor(OpenDescriptor(path)) {
    if (m_descriptor < 0) throw StreamError(std::string("cannot be opened: ") + strerror(errno));
    struct stat status {};
    m_pipe = ::fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode);
}

Input::~Input() {
    Shut();
}

void Input::Shut() {
    if (m_descriptor >= 0) ::close(m_descriptor);
    m_descriptor = -1;
    m_ended = true;
}

size_t Input::Read(uint8_t* to, size_t size) {
    size_t count = 0;
    for (;;) {
        if (m_heldSize > 0) return TakeHeld(to, size);
        if (m_error != 0) throw StreamError(std::string("cannot be read: ") + strerror(m_error));
        if (m_ended) return 0;
        m_set.WaitFor(*this);
        if (ReadNow(to, size, &count) && count > 0) return count;
    }
}

std::vector<uint8_t> Input::Head(size_t size) {
    while (m_heldSize < size && !m_ended && m_error == 0) {
        m_set.WaitFor(*this);
        Hold();
    }
    std::vector<uint8_t> head;
    for (const auto& block : m_held) {
        const size_t first = &block == &m_held.front() ? m_taken : 0;
        head.insert(head.end(), block.begin() + static_cast<ptrdiff_t>(first), block.end());
        if (head.size() >= size) break;
    }
    head.resize(std::min(head.size(), size));
    return head;
}

size_t Input::TakeHeld(uint8_t* to, size_t size) {
    const std::vector<uint8_t>& block = m_held.front();
    const size_t count = std::min(size, block.size() - m_taken);
    std::copy_n(block.begin() + static_cast<ptrdiff_t>(m_taken), count, to);
    m_taken += count;
    m_heldSize -= count;
    if (m_taken == block.size()) {
        m_held.pop_front();
        m_taken = 0;
    }
    return count;
}

/// Takes what there is into memory; false when there was nothing.
bool Input::Hold() {
    constexpr size_t kBlock = size_t{64} << 10;
    std::vector<uint8_t> block(kBlock);
    size_t count = 0;
    if (!ReadNow(block.data(), block.size(), &count) || count == 0) return false;
    block.resize(count);
    block.shrink_to_fit();
    m_heldSize += count;
    m_held.push_back(std::move(block));
    return true;
}

/// One read; false when nothing came after all. At the end and after a failure, which are kept,
/// `count` is 0.
bool Input::ReadNow(uint8_t* to, size_t size, size_t* count) {
    const ssize_t got = ::read(m_descriptor, to, size);
    *count = got > 0 ? static_cast<size_t>(got) : 0;
    if (got > 0) return true;
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return false;
    m_ended = got == 0;
    m_error = got == 0 ? 0 : errno;
    return true;
}

uint64_t Input::Size() const {
    struct stat status {};
    const bool isFile = ::fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
    return isFile ? static_cast<uint64_t>(status.st_size) : 0;
}

bool Input::IsSameFile(const std::string& path) const {
    struct stat own {};
    struct stat other {};
    return ::fstat(m_descriptor, &own) == 0 && ::stat(path.c_str(), &other) == 0 &&
           own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

Input& InputSet::Open(const std::string& path) {
    const auto isStandard = [](const auto& input) {
        return input->Path() == Input::kStandardInput;
    };
    if (path == Input::kStandardInput &&
        std::any_of(m_inputs.begin(), m_inputs.end(), isStandard)) {
        throw StreamError("standard input can be one input only");
    }
    m_inputs.push_back(std::unique_ptr<Input>(new Input(*this, path)));
    return *m_inputs.back();
}

bool InputSet::HasPipe() const {
    return std::any_of(m_inputs.begin(), m_inputs.end(),
                       [](const auto& input) { return input->IsPipe(); });
}

uint64_t InputSet::Size() const {
    uint64_t size = 0;
    for (const auto& input : m_inputs)
        size += input->Size();
    return size;
}

bool InputSet::Contains(const std::string& path) const {
    return std::any_of(m_inputs.begin(), m_inputs.end(),
                       [&](const auto& input) { return input->IsSameFile(path); });
}

/// Returns when a read of the input does not block. Throws Interrupted, or StreamError when another
/// pipe has sent all that is held for one in the meantime.
void InputSet::WaitFor(Input& wanted) {
    for (;;) {
        std::vector<pollfd> polled = {{StopSignal::Descriptor(), POLLIN, 0},
                                      {wanted.m_descriptor, POLLIN, 0}};
        std::vector<Input*> others;
        for (const auto& input : m_inputs) {
            if (input.get() == &wanted || !input->m_pipe || input->m_ended) continue;
            if (input->m_error != 0) continue;
            polled.push_back({input->m_descriptor, POLLIN, 0});
            others.push_back(input.get());
        }
        if (::poll(polled.data(), polled.size(), -1) < 0) {
            if (errno == EINTR) continue;
            throw StreamError(std::string("cannot be waited for: ") + strerror(errno));
        }
        if (polled[0].revents != 0) throw Interrupted();
        if (polled[1].revents != 0) return;
        for (size_t i = 0; i < others.size(); ++i) {
            if (polled[i + 2].revents == 0) continue;
            if (others[i]->m_heldSize >= m_maxHeld) {
                wanted.Shut();
                throw StreamError("nothing came while " + others[i]->Path() + " sent " +
                                  std::to_string(m_maxHeld >> 20) + " MiB");
            }
            others[i]->Hold();
        }
    }
}

}  // namespace kxmux
