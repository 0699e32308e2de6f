/// @file
/// The inputs of a recording, read so that none keeps another one waiting.
#ifndef KXMUX_INPUTSET_H
#define KXMUX_INPUTSET_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "ByteSource.h"

namespace kxmux {

class InputSet;

/// A file, pipe or device.
class Input final : public ByteSource {
public:
    ~Input() override;

    /// As for ByteSource; throws Interrupted when the user asks to stop while there is nothing to
    /// hand out.
    size_t Read(uint8_t* to, size_t size) override;
    /// The first bytes of what is still to be read, which they stay; fewer than `size` at the end.
    std::vector<uint8_t> Head(size_t size);

    const std::string& Path() const { return m_path; }
    /// Bytes, or 0 when that is not known beforehand.
    uint64_t Size() const;
    /// Whether its bytes come from somewhere else at their own time.
    bool IsPipe() const { return m_pipe; }
    /// Whether its path opens the same bytes again.
    bool CanReopen() const { return !m_pipe && m_path != kStandardInput; }
    /// Whether the path names this very file.
    bool IsSameFile(const std::string& path) const;

    /// The path of standard input.
    static constexpr const char* kStandardInput = "-";

private:
    friend class InputSet;
    Input(InputSet& set, const std::string& path);

    size_t TakeHeld(uint8_t* to, size_t size);
    bool Hold();
    bool ReadNow(uint8_t* to, size_t size, size_t* count);
    void Shut();

    InputSet& m_set;
    std::string m_path;
    int m_descriptor;
    bool m_pipe = false;
    bool m_ended = false;
    int m_error = 0;                          // of a read ahead, told when its turn comes
    std::deque<std::vector<uint8_t>> m_held;  // read ahead
    size_t m_taken = 0;                       // of the first held block
    size_t m_heldSize = 0;
};

/// Opens inputs and waits for them. While one is waited for, what the pipes among the others send
/// is taken into memory: a program that writes to two of them in turn is never blocked by the one
/// that is not being read.
class InputSet {
public:
    /// Bytes that are held for one pipe; then the input that is waited for has failed.
    static constexpr size_t kMaxHeld = size_t{1} << 30;

    explicit InputSet(size_t maxHeld = kMaxHeld) : m_maxHeld(maxHeld) {}

    /// Opens a path without waiting for a writer; "-" is standard input, for one input only.
    /// The input lives as long as the set. Throws StreamError.
    Input& Open(const std::string& path);
    /// Whether the size of any is not known, because it is a pipe.
    bool HasPipe() const;
    /// Bytes of all whose size is known.
    uint64_t Size() const;
    /// Whether the path names one of the inputs.
    bool Contains(const std::string& path) const;

private:
    friend class Input;
    void WaitFor(Input& wanted);

    size_t m_maxHeld;
    std::vector<std::unique_ptr<Input>> m_inputs;
};

}  // namespace kxmux

#endif  // KXMUX_INPUTSET_H
