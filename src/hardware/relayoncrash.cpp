#include "relayoncrash.h"

#include <array>
#include <atomic>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// All that end a process when nothing is done about them, but for those that ask the server to end.
constexpr std::array<int, 16> Deadly = {SIGSEGV, SIGBUS,  SIGILL,  SIGFPE,  SIGABRT, SIGSYS,  SIGTRAP,   SIGQUIT,
                                        SIGHUP,  SIGXCPU, SIGXFSZ, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF};

std::atomic<int> s_drive{-1}; ///< a signal handler reaches nothing but globals
static_assert(std::atomic<int>::is_always_lock_free);

/// The handler was removed when it was called: raised once more, the signal ends the process as soon as this returns.
/// What had failed is the place that a core dump shows.
void openAndDie(int signalNumber)
{
    [[maybe_unused]] const ssize_t written = pwrite(s_drive, "0", 1, 0);
    raise(signalNumber);
}

void handle(int signalNumber)
{
    struct sigaction current = {};
    if (sigaction(signalNumber, nullptr, &current) != 0 || current.sa_handler != SIG_DFL) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = openAndDie;
    action.sa_flags = SA_RESETHAND;
    sigfillset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

} // namespace

void openRelayOnCrash(int drive)
{
    const int former = s_drive.exchange(fcntl(drive, F_DUPFD_CLOEXEC, 0));
    if (former >= 0) {
        close(former);
    }
    for (const int signalNumber : Deadly) {
        handle(signalNumber);
    }
}
