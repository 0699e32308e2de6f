#include "StopSignal.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kxmux {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What the handler touches. It may only use what is safe at any moment: these and system calls.
volatile std::sig_atomic_t signalNumber = 0;
std::atomic<const char*> farewell{nullptr};
int stopPipe[2] = {-1, -1};

/// The status that a shell gives to a program that the signal ended.
[[noreturn]] void GiveUp(int number) {
    constexpr int kSignalStatus = 128;
    const char* const line = farewell.load();
    if (line != nullptr && ::write(STDERR_FILENO, line, std::strlen(line)) < 0) {
        // Nobody is left to be told.
    }
    ::_exit(kSignalStatus + number);
}

extern "C" void OnStopSignal(int number) {
    if (signalNumber != 0) GiveUp(number);
    const int kept = errno;
    signalNumber = number;
    const char wake = 0;
    if (::write(stopPipe[1], &wake, 1) < 0) {
        // The pipe is empty, so there is room for one byte.
    }
    errno = kept;
}

}  // namespace

void StopSignal::Install() {
    if (::pipe(stopPipe) != 0) return;
    for (const int end : stopPipe) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : kSignals)
        sigaddset(&action.sa_mask, number);
    for (const int number : kSignals) {
        struct sigaction before {};
        const bool known = ::sigaction(number, nullptr, &before) == 0;
        if (known && number == SIGHUP && before.sa_handler == SIG_IGN) continue;
        ::sigaction(number, &action, nullptr);
    }
}

int StopSignal::Number() {
    return signalNumber;
}

int StopSignal::Descriptor() {
    return stopPipe[0];
}

void StopSignal::SetFarewell(const std::string& line) {
    static std::string text;
    farewell.store(nullptr);
    text = line;
    if (!text.empty()) farewell.store(text.c_str());
}

}  // namespace kxmux
