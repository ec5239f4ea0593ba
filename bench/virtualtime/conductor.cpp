// The bench's half of virtual time: it learns when the server has nothing left to do, and moves the clock.
#include "page.h"
#include "taskstates.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <linux/futex.h>
#include <memory>
#include <new>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace {

constexpr std::int64_t Microsecond = 1000;
/// A thread that waits in a way that this library does not know must have rested for so long, as all others must.
constexpr std::int64_t UnknownWait = 200000 * Microsecond;
/// A process of which one thread has gone without leave is given so long to end as a whole.
constexpr std::int64_t Ending = 2000000 * Microsecond;
/// For so long it is worth while to stay awake for something that the kernel is just doing.
constexpr std::int64_t SoonDone = 50 * Microsecond;

/// The real clock: this process takes no part, and the library in front of its own functions lets everything pass.
std::int64_t realNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

void pause(std::int64_t since)
{
    const timespec moment{0, 20 * Microsecond};
    if (realNow() - since < SoonDone) {
        sched_yield();
    } else {
        nanosleep(&moment, nullptr);
    }
}

/// The server's board (see descriptors.h), as a descriptor of this process; -1 where the system refuses it.
int borrowBoard(int process, int number)
{
    const int handle = number < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    const int board = handle < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_getfd, handle, number, 0));
    if (handle >= 0) {
        close(handle);
    }
    return board;
}

} // namespace

/// What was found: the server works; it has nothing to do; bytes that it is to read are under way on its line; it has
/// nothing to do, and bytes that it wrote are under way; it has nothing to do, and the bench has; only a child process
/// works.
enum class Verdict : std::int32_t { Busy, Settled, ToServer, FromServer, BenchsTurn, ChildWorks };

constexpr bool hasSettled(Verdict verdict)
{
    return verdict == Verdict::Settled || verdict == Verdict::FromServer;
}

/// What the bench knows when it hands over, and what it is told.
struct Stride
{
    std::int64_t now;      ///< in and out
    std::int64_t due;      ///< the bench's next deadline, or Never
    std::int64_t sent;     ///< bytes that the server can read of its serial line
    std::int64_t received; ///< bytes that have come from there, or -1: nobody reads them
    std::int32_t events;   ///< the bench's epoll instance
    std::int32_t jumps;    ///< in: how often the clock may be moved at most; out: how often it was
    std::int64_t moment;   ///< out: the system's wall clock when it was moved last
};

/// One server process. Used by one thread.
class Conductor
{
public:
    Conductor(Page* page, int process)
        : m_page(*page)
        , m_tasks(process)
    {}
    ~Conductor()
    {
        if (m_board >= 0) {
            close(m_board);
        }
    }
    Conductor(const Conductor&) = delete;
    Conductor& operator=(const Conductor&) = delete;

    /// Waits at most so long until the server has nothing to do (see Stride). The bench does nothing meanwhile.
    Verdict settles(std::int64_t microseconds, std::int64_t sent, std::int64_t received)
    {
        const std::int64_t began = realNow();
        if (m_page.process == 0 || began < m_endsUntil) {
            pause(0);
            return Verdict::Busy; // the bench will hear of its end
        }
        const std::int64_t until = began + microseconds * Microsecond;
        Verdict verdict = look(sent, received);
        while (!hasSettled(verdict) && realNow() < until) {
            if (m_page.running == 0 || !waitForRest(until)) {
                pause(began);
            }
            verdict = look(sent, received);
        }
        if (verdict != Verdict::Busy) {
            m_busySince = 0;
            return verdict;
        }
        return m_page.running != 0 && restsUnknown() ? Verdict::Settled : Verdict::Busy;
    }

    /// Something was done to the server that no number tells, such as a signal: the kernel is asked about each thread.
    void lookClosely() { m_closely = true; }

    std::int64_t nextDeadline() const
    {
        std::int64_t next = Never;
        for (int index = 0; index < m_page.slotsUsed && !m_stopped; ++index) {
            const Slot& slot = m_page.slots[index];
            const std::int64_t deadline = slot.deadline;
            if (rests(slot.state) && deadline < next) {
                next = deadline;
            }
        }
        return next;
    }

    void advance(std::int64_t now)
    {
        m_page.now = now;
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            Slot& slot = m_page.slots[index];
            const std::uint32_t state = slot.state;
            if (rests(state) && slot.deadline <= now && callThread(slot, state)) {
                wake(slot);
            }
        }
    }

    std::int64_t unknownWaits() const { return m_unknownWaits; }

private:
    Verdict look(std::int64_t sent, std::int64_t received)
    {
        const bool toServer = m_page.lineRead < sent;
        const std::uint64_t before = turns();
        if (toServer) {
            callReader();
        }
        if (m_page.running != 0 || !allRest() || callReady() || !othersSleep() || toServer || turns() != before) {
            return m_page.lineRead < sent ? Verdict::ToServer : Verdict::Busy;
        }
        if (m_endsUntil > realNow()) {
            return Verdict::Busy;
        }
        m_closely = m_closely && m_stopped;
        if (!noChildWorks()) {
            return Verdict::ChildWorks;
        }
        return received >= 0 && received < m_page.lineWritten ? Verdict::FromServer : Verdict::Settled;
    }

    /// A number that another one follows whenever any thread does anything but rest.
    std::uint64_t turns() const
    {
        std::uint64_t sum = 0;
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            sum += m_page.slots[index].state;
        }
        return sum;
    }

    bool allRest() const
    {
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            const Slot& slot = m_page.slots[index];
            const std::uint32_t state = slot.state;
            const int joins = slot.joins;
            if (doing(state) != Free && (!rests(state) || (joins && doing(m_page.slots[joins - 1].state) == Free))) {
                return false;
            }
        }
        return true;
    }

    bool callThread(Slot& slot, std::uint32_t state)
    {
        ++m_page.running;
        if (slot.state.compare_exchange_strong(state, state | Called)) {
            return true;
        }
        --m_page.running;
        return false;
    }

    void wake(const Slot& slot) { syscall(SYS_tgkill, m_tasks.process(), slot.thread.load(), m_page.wakeSignal); }

    /// The bytes will reach it.
    void callReader()
    {
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            Slot& slot = m_page.slots[index];
            const std::uint32_t state = slot.state;
            if (doing(state) == Reading && rests(state)) {
                callThread(slot, state);
            }
        }
    }

    /// Calls those for whose descriptors there is something, and whom the kernel is just waking.
    bool callReady()
    {
        if (m_board == NotYet) {
            m_board = borrowBoard(m_tasks.process(), m_page.board);
        }
        if (m_stopped) {
            return false;
        }
        constexpr int Most = 64;
        epoll_event ready[Most];
        const int count = m_board < 0 ? 0 : epoll_wait(m_board, ready, Most, 0);
        bool called = false;
        for (int index = 0; index < count; ++index) {
            Slot& slot = m_page.slots[ready[index].data.u32 % MaxThreads];
            const std::uint32_t state = slot.state;
            called = (doing(state) == Polling && rests(state) && callThread(slot, state)) || called;
        }
        return called;
    }

    /// Whether those sleep of whom the kernel has to be asked.
    bool othersSleep()
    {
        const bool everybody = m_closely || m_board < 0;
        if (everybody) {
            m_stopped = false;
        }
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            Slot& slot = m_page.slots[index];
            if (doing(slot.state) != Free && (everybody || slot.hidden) && !sleeps(index)) {
                return false;
            }
        }
        return true;
    }

    bool waitForRest(std::int64_t until)
    {
        m_page.conductorWaits = 1;
        std::int64_t left = until - realNow();
        for (std::uint32_t running = m_page.running; running && left > 0; running = m_page.running) {
            const timespec limit{0, static_cast<long>(left)};
            syscall(SYS_futex, &m_page.running, FUTEX_WAIT, running, &limit, nullptr, 0);
            left = until - realNow();
        }
        m_page.conductorWaits = 0;
        return m_page.running == 0;
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
        m_endsUntil = realNow() + Ending;
        const std::uint32_t state = slot.state.exchange(Free);
        if (doing(state) != Free && !rests(state)) {
            --m_page.running;
        }
    }

    /// Some thread counts as running and yet sleeps: in a wait that this library does not know, because what it was
    /// called for did not come, or because it is stopped.
    bool restsUnknown()
    {
        const std::uint64_t now = turns();
        if (!m_tasks.allRest() || now != m_turnsThen || m_busySince == 0) {
            m_turnsThen = now;
            m_busySince = realNow();
            return false;
        }
        if (realNow() - m_busySince < UnknownWait) {
            return false;
        }
        ++m_unknownWaits;
        m_stopped = false;
        for (int index = 0; index < m_page.slotsUsed; ++index) {
            if (doing(m_page.slots[index].state) != Free && sleeps(index)) {
                takeBackCall(m_page.slots[index]);
            }
        }
        m_turnsThen = turns();
        return noChildWorks();
    }

    void takeBackCall(Slot& slot)
    {
        std::uint32_t state = slot.state;
        if (doing(state) >= Waiting && (state & Called) && slot.state.compare_exchange_strong(state, state & ~Called)) {
            --m_page.running;
        }
    }

    bool noChildWorks()
    {
        const std::uint32_t begun = m_page.children;
        if (begun == m_childrenEnded) {
            return true;
        }
        if (m_tasks.hasChild(!m_stopped)) { // one that has ended is about to wake a thread, unless all are stopped
            return false;
        }
        m_childrenEnded = begun;
        m_closely = true; // the signal of its end was handled in some thread, perhaps in the middle of a wait
        return m_stopped;
    }

    static constexpr int NotYet = -2;

    Page& m_page;
    TaskStates m_tasks;
    int m_board = NotYet;
    bool m_closely = false;
    bool m_stopped = false;
    std::uint32_t m_childrenEnded = 0;
    std::uint64_t m_turnsThen = 0;
    std::int64_t m_busySince = 0;
    std::int64_t m_endsUntil = 0;
    std::int64_t m_unknownWaits = 0;
};

namespace {

constexpr std::int64_t PatienceMicroseconds = 2000;
constexpr int LineMilliseconds = 1;    // for bytes that the kernel is just carrying
constexpr std::int64_t Step = 1000000; // the clock shows whole milliseconds: what is due in the same one is due at once

std::int64_t wallNow()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

bool hasEvents(int events, int milliseconds)
{
    epoll_event unused;
    return epoll_wait(events, &unused, 1, milliseconds) != 0; // also when a signal is for the bench
}

/// Lets the server do what it has to, and time pass, until the bench has something to do. First comes the server.
Verdict stride(Conductor* conductor, Stride& with)
{
    const std::int32_t most = with.jumps;
    for (with.jumps = 0;; ++with.jumps) {
        const Verdict verdict =
            conductor ? conductor->settles(PatienceMicroseconds, with.sent, with.received) : Verdict::Settled;
        if (!hasSettled(verdict)) {
            return verdict;
        }
        if (with.due <= with.now || hasEvents(with.events, verdict == Verdict::FromServer ? LineMilliseconds : 0)) {
            return Verdict::BenchsTurn;
        }
        const std::int64_t next = conductor ? std::min(with.due, conductor->nextDeadline()) : with.due;
        if (verdict == Verdict::FromServer || with.jumps == most || next == Never) {
            return verdict;
        }
        with.now = std::max(with.now, (next + Step - 1) / Step * Step);
        with.moment = wallNow();
        if (conductor) {
            conductor->advance(with.now);
        }
    }
}

} // namespace

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

/// See `stride`; the number of a Verdict. Without a conductor there is no server.
EXPORTED std::int32_t virtualtime_stride(Conductor* conductor, Stride* with)
{
    return static_cast<std::int32_t>(stride(conductor, *with));
}

/// Something was done to the server of which neither line nor descriptors tell.
EXPORTED void virtualtime_look_closely(Conductor* conductor)
{
    conductor->lookClosely();
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
