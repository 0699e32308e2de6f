/// @file
/// Ctrl-C and its like: the first one ends the recording properly, a second one at once.
#ifndef KXMUX_STOPSIGNAL_H
#define KXMUX_STOPSIGNAL_H

#include <exception>
#include <string>

namespace kxmux {

/// What a read throws when the user has asked to stop.
class Interrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted, nothing was recorded"; }
};

/// SIGINT, SIGTERM and SIGHUP of this process. Without Install there is never a signal.
class StopSignal {
public:
    /// Takes the signals over; SIGHUP stays ignored where it is (nohup). Call it once.
    static void Install();
    /// The signal that asked to stop; 0 until then.
    static int Number();
    /// Becomes readable with the first signal, so that a wait ends; -1 without Install.
    static int Descriptor();
    /// What a second signal prints on standard error before it ends the process; empty for nothing.
    static void SetFarewell(const std::string& line);
};

}  // namespace kxmux

#endif  // KXMUX_STOPSIGNAL_H
