#pragma once

#include "loop.h"

#include <functional>

#include <sys/types.h>

namespace bench {

/// How this process and those that it starts are scheduled. Ahead of all other work on the machine (SCHED_FIFO) a
/// measurement on a busy machine shows the server and not its neighbours.
void runAheadOfOthers();

/// A child process under measurement: the server, or the forwarder that stands for it.
class Process
{
public:
    /// Starts the server with its log in a file; nothing else stands in its environment than what a service gets.
    static Process server();
    /// Starts a copy of this process that does `work` and never returns from it.
    static Process copy(const std::function<void()>& work);
    ~Process();
    Process(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// SIGTERM, and SIGKILL when that does not help. Ends the program when a server ended badly.
    void stop();

    Nanoseconds startedAt() const { return m_startedAt; }
    Nanoseconds cpuTime() const; ///< of all threads
    long residentKiB() const;
    long wakeUps() const; ///< times that a thread blocked and was woken, over the threads that live
    int threads() const;

private:
    Process(pid_t pid, Nanoseconds startedAt, bool mustEndWell);

    pid_t m_pid;
    Nanoseconds m_startedAt;
    bool m_mustEndWell;
};

} // namespace bench
