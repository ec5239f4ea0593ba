// The bench's half of virtual time: it learns when the server has nothing left to do, and moves its clock.
#pragma once

#include "page.h"
#include "taskstates.h"

namespace virtualtime {

/// What was found: the server works; it has nothing to do; bytes that it is to read are under way on its line; it has
/// nothing to do, and bytes that it wrote are under way; it has nothing to do, and the bench has; only a child process
/// works.
enum class Verdict : std::int32_t { Busy, Settled, ToServer, FromServer, BenchsTurn, ChildWorks };

constexpr bool hasSettled(Verdict verdict)
{
    return verdict == Verdict::Settled || verdict == Verdict::FromServer;
}

/// One server process. Used by one thread.
class Conductor
{
public:
    Conductor(Page* page, int process);
    ~Conductor();
    Conductor(const Conductor&) = delete;
    Conductor& operator=(const Conductor&) = delete;

    /// Waits at most so long until the server has nothing to do (see Stride). The bench does nothing meanwhile.
    Verdict settles(std::int64_t microseconds, std::int64_t sent, std::int64_t received);

    /// Something was done to the server that no number tells, such as a signal: the kernel is asked about each thread.
    void lookClosely() { m_closely = true; }

    /// Of all threads that rest; Never while they are stopped.
    std::int64_t nextDeadline() const;

    /// Shows the server this moment, and wakes whose deadline it is.
    void advance(std::int64_t now);

    std::int64_t unknownWaits() const { return m_unknownWaits; }

private:
    Verdict look(std::int64_t sent, std::int64_t received);

    /// A number that another one follows whenever any thread does anything but rest.
    std::uint64_t turns() const;

    bool allRest() const;

    bool callThread(Slot& slot, std::uint32_t state);

    void wake(const Slot& slot);

    /// The bytes will reach it.
    void callReader();

    /// Calls those for whose descriptors there is something, and whom the kernel is just waking.
    bool callReady();

    /// Whether those sleep of whom the kernel has to be asked.
    bool othersSleep();

    bool waitForRest(std::int64_t until);

    bool sleeps(int index);

    /// A thread that has not taken its leave: its process has ended.
    void removeEnded(Slot& slot);

    /// Some thread counts as running and yet sleeps: in a wait that this library does not know, because what it was
    /// called for did not come, or because it is stopped.
    bool restsUnknown();

    void takeBackCall(Slot& slot);

    /// Once for each child process that ends the answer is no, after its end: somebody is to be woken by that.
    bool noChildWorks();

    static constexpr int NotYet = -2;

    Page& m_page;
    TaskStates m_tasks;
    int m_board = NotYet; ///< the server's board, borrowed; -1 where the system refuses it
    bool m_closely = false;
    bool m_stopped = false; ///< by a signal: the threads rest, and their time does not come
    std::uint32_t m_childrenEnded = 0;
    std::uint64_t m_turnsThen = 0;
    std::int64_t m_busySince = 0;
    std::int64_t m_endsUntil = 0;
    std::int64_t m_unknownWaits = 0;
};

} // namespace virtualtime
