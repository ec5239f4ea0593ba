// The server's half of virtual time: its threads, and how they wait.
//
// Everything here is called in the process that the library was preloaded into. Where there is no page (the bench
// itself, or a child process of the server), `page()` is null and everything is as without the library.
#pragma once

#include "page.h"

#include <csignal>
#include <ctime>

namespace virtualtime {

/// The page, or null in a process that takes no part. Attaches at the first call, which may come before any
/// constructor.
Page* page();

/// The function of this name that ours stands in front of. Never null: a missing one ends the process.
void* following(const char* name);

constexpr std::int64_t Second = 1000000000;
constexpr std::int64_t Millisecond = 1000000;

std::int64_t nanoseconds(const timespec& time);
timespec asTimespec(std::int64_t nanoseconds);

/// Virtual now plus a duration; a negative duration counts as none.
std::int64_t deadlineAfter(const timespec& duration);

/// The virtual deadline for a point of time on one of the clocks.
std::int64_t deadlineAt(clockid_t clock, const timespec& time);

bool isOver(std::int64_t deadline);

/// A slot for a thread that is about to begin (-1: none is left), taken over by that thread, given back at its end.
int reserveSlot();
void adoptSlot(int index);
void releaseSlot(int index);
void freeSlot(int index); ///< one that no thread has taken over
int ownSlot();

/// Of a thread that rests, in a state that was just seen: it will run. Nothing happens if it has gone on meanwhile.
void callThread(Slot& slot, std::uint32_t state);

/// One less runs or will: the conductor is told when that was the last one.
void lessRunning(Page& shared);

/// Blocks or unblocks one signal for this thread.
void changeMask(int how, int signal);

/// The handler of the conductor's signal, see `Wait::wasCalled`.
void noteCall(int signal);

/// Calls all who wait, or are about to wait, on this futex. All of them have to be woken then.
void callWaitersOn(const void* word);

/// Says to the conductor, as long as it lives, that this thread waits: for an event, or until the deadline.
class Wait
{
public:
    explicit Wait(Doing what, std::int64_t deadline = Never, int joinedSlot = -1);
    /// On a futex.
    Wait(std::int64_t deadline, const std::uint32_t* word, std::uint32_t expected);
    ~Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    /// Whether the conductor's signal, and not something else, has interrupted this thread since the beginning.
    static bool wasCalled();

    /// Whether there is nothing to wait for, as the futex has another value than expected or is just being woken.
    bool refused() const { return m_refused; }

    /// From now on this thread waits for what only the kernel sees, or does so no more.
    static void hide(bool hidden);

private:
    void begin(std::int64_t deadline);

    int m_slot;
    bool m_refused = false;
};

/// A thread that asks for the time, or looks whether something has come, without end waits for time to pass. True once
/// in a while: then a millisecond should.
bool spins();
/// The thread does wait: what it asked before does not count as spinning.
void restsNow();

/// The signal mask that a waiting thread uses: the given one (null: its own) without the conductor's signal.
sigset_t waitMask(const sigset_t* wanted);
/// This thread has changed its own.
void forgetMask();

/// A wait for nothing but time. False when another signal has ended it early.
bool sleepUntil(std::int64_t deadline);

/// FUTEX_WAIT (with a bit set, private or not as `operation` says) that ends at a virtual deadline; 0 or -errno.
int waitOnFutex(std::uint32_t* word, int operation, std::uint32_t expected, std::int64_t deadline, std::uint32_t bits);

} // namespace virtualtime
