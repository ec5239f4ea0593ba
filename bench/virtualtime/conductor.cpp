// The bench's half of virtual time: it learns when the server has nothing left to do, and moves the clock.
#include "page.h"
#include "taskstates.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <linux/futex.h>
#include <memory>
#include <new>
#include <sys/syscall.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace {

constexpr std::int64_t Microsecond = 1000;
/// A thread that waits in a way that this library does not know must have rested for so long, as all others must.
constexpr std::int64_t UnknownWait = 200000 * Microsecond;

/// The real clock: this process takes no part, and the library in front of its own functions lets everything pass.
std::int64_t realNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

void briefly()
{
    const timespec moment{0, 20 * Microsecond};
    nanosleep(&moment, nullptr);
}

} // namespace

enum class Verdict : std::int32_t { Busy, Settled, BytesUnderWay };

/// One server process. Used by one thread.
class Conductor
{
public:
    Conductor(Page* page, int process)
        : m_page(*page)
        , m_tasks(process)
    {}

    /// `sent` bytes are what the server can read of its serial line, `received` what has come from there; a negative
    /// number is not judged. The bench does nothing meanwhile, so a line without bytes under way before and after the
    /// look at the threads had none while they slept.
    Verdict settles(std::int64_t microseconds, std::int64_t sent, std::int64_t received)
    {
        if (m_page.process == 0) {
            return m_tasks.of(0, m_tasks.process()) == TaskState::Gone ? Verdict::Settled : Verdict::Busy;
        }
        if (!lineIsEmpty(sent, received)) {
            briefly();
            return Verdict::BytesUnderWay;
        }
        if (m_page.running != 0 && !waitForRest(microseconds)) {
            return restsUnknown() ? Verdict::Settled : Verdict::Busy;
        }
        m_busySince = 0;
        const bool settled = allAsleep() && noChildWorks() && lineIsEmpty(sent, received);
        return settled ? Verdict::Settled : Verdict::Busy;
    }

    std::int64_t nextDeadline() const
    {
        std::int64_t next = Never;
        for (int index = 0; index < MaxThreads && !m_stopped; ++index) {
            const Slot& slot = m_page.slots[index];
            const std::int64_t deadline = slot.deadline;
            if (slot.state == Waiting && deadline < next) {
                next = deadline;
            }
        }
        return next;
    }

    void advance(std::int64_t now)
    {
        m_page.now = now;
        for (Slot& slot : m_page.slots) {
            std::uint32_t state = Waiting;
            if (slot.state == Waiting && slot.deadline <= now && slot.state.compare_exchange_strong(state, Running)) {
                ++m_page.running;
                syscall(SYS_tgkill, m_tasks.process(), slot.thread.load(), m_page.wakeSignal);
            }
        }
    }

    std::int64_t unknownWaits() const { return m_unknownWaits; }

private:
    bool lineIsEmpty(std::int64_t sent, std::int64_t received) const
    {
        return (sent < 0 || m_page.lineRead == sent) && (received < 0 || m_page.lineWritten == received);
    }

    bool waitForRest(std::int64_t microseconds)
    {
        const std::int64_t until = realNow() + microseconds * Microsecond;
        m_page.conductorWaits = 1;
        std::int64_t left = microseconds * Microsecond;
        for (std::uint32_t running = m_page.running; running && left > 0; running = m_page.running) {
            const timespec limit{0, static_cast<long>(left)};
            syscall(SYS_futex, &m_page.running, FUTEX_WAIT, running, &limit, nullptr, 0);
            left = until - realNow();
        }
        m_page.conductorWaits = 0;
        return m_page.running == 0;
    }

    /// Whether every thread that says to be waiting is asleep, and none has been awake since the first was looked at:
    /// one that wakes another and lies down again has begun another turn.
    bool allAsleep()
    {
        m_stopped = false;
        std::uint32_t turns = 0;
        for (int index = 0; index < MaxThreads; ++index) {
            turns += m_page.slots[index].turns;
        }
        if (m_page.slots[m_busyLast].state != Free && !sleeps(m_busyLast)) {
            return false;
        }
        for (int index = 0; index < MaxThreads; ++index) {
            if (m_page.slots[index].state != Free && !sleeps(index)) {
                m_busyLast = index;
                return false;
            }
        }
        for (int index = 0; index < MaxThreads; ++index) {
            turns -= m_page.slots[index].turns;
        }
        return turns == 0 && m_page.running == 0;
    }

    bool sleeps(int index)
    {
        Slot& slot = m_page.slots[index];
        const int thread = slot.thread;
        const TaskState state = thread ? m_tasks.of(index, thread) : TaskState::Busy;
        if (state == TaskState::Gone && slot.thread == thread) {
            removeEnded(slot);
        }
        m_stopped = m_stopped || state == TaskState::Stopped;
        return state != TaskState::Busy;
    }

    /// A thread that has not taken its leave: its process has ended.
    void removeEnded(Slot& slot)
    {
        if (slot.state.exchange(Free) == Running) {
            --m_page.running;
        }
    }

    /// Some thread counts as running and yet sleeps: in a wait that this library does not know, or because it is
    /// stopped.
    bool restsUnknown()
    {
        std::uint32_t turns = 0;
        for (const Slot& slot : m_page.slots) {
            turns += slot.turns;
        }
        if (!m_tasks.allRest() || turns != m_turnsThen || m_busySince == 0) {
            m_turnsThen = turns;
            m_busySince = realNow();
            return false;
        }
        if (realNow() - m_busySince < UnknownWait) {
            return false;
        }
        ++m_unknownWaits;
        noteStopped();
        return noChildWorks();
    }

    void noteStopped()
    {
        for (int index = 0; index < MaxThreads; ++index) {
            if (m_page.slots[index].state != Free) {
                sleeps(index);
            }
        }
    }

    bool noChildWorks()
    {
        const std::uint32_t begun = m_page.children;
        if (begun == m_childrenEnded) {
            return true;
        }
        if (m_tasks.hasBusyChild()) {
            return false;
        }
        m_childrenEnded = begun;
        return true;
    }

    Page& m_page;
    TaskStates m_tasks;
    bool m_stopped = false;
    int m_busyLast = 0; ///< the slot to look at first, as one look at the kernel costs microseconds
    std::uint32_t m_childrenEnded = 0;
    std::uint32_t m_turnsThen = 0;
    std::int64_t m_busySince = 0;
    std::int64_t m_unknownWaits = 0;
};

extern "C" {

/// How many bytes a page has; a file of so many zeros is to be mapped by both sides.
EXPORTED std::int64_t virtualtime_page_size()
{
    return sizeof(Page);
}

/// Makes a page ready for the next server; the clock goes on from `now`.
EXPORTED void virtualtime_prepare(Page* page, std::int64_t now, std::int64_t monotonicBase, std::int64_t realtimeBase)
{
    auto* fresh = new (page) Page{};
    fresh->version = PageVersion;
    fresh->wakeSignal = SIGRTMAX - 3;
    fresh->monotonicBase = monotonicBase;
    fresh->realtimeBase = realtimeBase;
    fresh->now = now;
}

/// The process that has taken part since the page was prepared; 0 is none.
EXPORTED std::int32_t virtualtime_process(const Page* page)
{
    return page->process;
}

EXPORTED Conductor* virtualtime_begin(Page* page, std::int32_t process)
{
    return new Conductor(page, process);
}

EXPORTED void virtualtime_end(Conductor* conductor)
{
    delete conductor;
}

/// Whether nothing moves in the server and on its line (see Conductor::settles), waiting at most so many real
/// microseconds: 0 something moves, 1 nothing does, 2 bytes are under way on the line.
EXPORTED std::int32_t virtualtime_settles(Conductor* conductor, std::int64_t microseconds, std::int64_t sent,
                                          std::int64_t received)
{
    return static_cast<std::int32_t>(conductor->settles(microseconds, sent, received));
}

/// The earliest deadline of a server that has settled, in virtual nanoseconds; the largest number when it waits for
/// events.
EXPORTED std::int64_t virtualtime_next(const Conductor* conductor)
{
    return conductor->nextDeadline();
}

/// Moves the clock and wakes those whose time has come.
EXPORTED void virtualtime_advance(Conductor* conductor, std::int64_t now)
{
    conductor->advance(now);
}

/// How often the server was taken to rest although a thread waited in a way that the library does not know.
EXPORTED std::int64_t virtualtime_unknown_waits(const Conductor* conductor)
{
    return conductor->unknownWaits();
}

EXPORTED std::int64_t virtualtime_line_read(const Page* page)
{
    return page->lineRead;
}

EXPORTED std::int64_t virtualtime_line_written(const Page* page)
{
    return page->lineWritten;
}

} // extern "C"
