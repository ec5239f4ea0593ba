#pragma once

#include <QByteArray>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

/// Lines on their way from any number of threads to the one that writes them: a ring of fixed size without a lock, so
/// that a thread that is held up in the middle of a call holds up no other thread that adds.
///
/// Each slot carries a number that tells whose turn it is: equal to the position of the next line that may be put
/// there, or one more once the line is there. Adding threads take positions in order, which is the order of the lines.
///
/// Positions are counted on from 0, over the largest number back to 0, and position p belongs to the slot p modulo the
/// capacity:
///
/// | turn of the slot | its state                       | who acts next                                      |
/// |------------------|---------------------------------|----------------------------------------------------|
/// | p                | empty, or being filled just now | the adding thread that wins, or has won position p |
/// | p + 1            | holds the line of position p    | the taking thread                                  |
/// | p + capacity     | empty again, for the next round | as in the first row, with the next round's p       |
///
/// An adding thread that is held up between winning its position and filling the slot holds back the lines behind its
/// own from the taking thread, for order's sake. The others go on adding until the ring is full.
///
/// Nobody is woken by a new line: who takes must look, or be told otherwise (LogWriter does that with a semaphore).
///
///     LineQueue::Line line{text, std::exchange(lost, 0)};   // any thread
///     if (!queue.push(line)) {
///         lost += line.lostBefore + 1;                      // still there: nothing was taken from `line`
///     }
///
///     LineQueue::Line next;                                 // the one thread that takes
///     while (queue.pop(next)) { ... }
class LineQueue
{
public:
    /// Of a line among all that have ever been added. At a hundred lines a second it begins anew after 500 days.
    using Position = std::uint32_t;

    /// Which of two positions comes first, as long as less than half of all numbers lie between them.
    static constexpr bool isBefore(Position one, Position other) { return static_cast<std::int32_t>(one - other) < 0; }

    /// Takes all the memory of the ring at once; the texts bring their own. They are bounded in number and not in size:
    /// who adds long ones counts bytes beside this.
    /// @param capacity  a power of two, and at least 2: with a single slot "holds the line of p" and "is free for
    ///                  p + 1" would be the same number. Not checked.
    /// @param first     of the first line; another one than 0 is as if so many had been added and taken before.
    explicit LineQueue(Position capacity, Position first = 0)
        : m_slots(new Slot[capacity])
        , m_mask(capacity - 1)
        , m_end(first)
        , m_begin(first)
    {
        for (Position position = first; position != first + capacity; ++position) {
            m_slots[position & m_mask].turn.store(position, std::memory_order_relaxed);
        }
    }

    /// What travels through the ring. Moved in and out, never copied.
    struct Line
    {
        QByteArray text;
        std::size_t lostBefore = 0; ///< lines that were refused since the line before this one
    };

    /// Puts a line at the end. Any thread; never waits, allocates nothing and calls nothing of the system. The thread
    /// that takes sees all that this one wrote before the call.
    /// @return false, with `line` untouched, when there is no room.
    bool push(Line& line)
    {
        Position position = m_end.load(std::memory_order_relaxed);
        while (true) {
            Slot& slot = m_slots[position & m_mask];
            const Position turn = slot.turn.load(std::memory_order_acquire);
            if (turn == position) {
                // Won: from here on the slot is this thread's alone. Lost: `position` has been read anew.
                if (m_end.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
                    slot.line = std::move(line);
                    slot.turn.store(position + 1, std::memory_order_release);
                    return true;
                }
            } else if (isBefore(turn, position)) {
                return false; // the line of the round before is still there
            } else {
                position = m_end.load(std::memory_order_relaxed); // another thread was faster
            }
        }
    }

    /// Whether there is a line to take. Only in the thread that takes: there a true answer stays true until pop(). A
    /// false one may be outdated at once.
    bool hasLine() const { return m_slots[m_begin & m_mask].turn.load(std::memory_order_acquire) == m_begin + 1; }

    /// Takes the line at the front. One thread only; never waits.
    /// @return false, `line` untouched, when none is ready: the ring is empty, or the front line is still being added.
    bool pop(Line& line)
    {
        if (!hasLine()) {
            return false;
        }
        Slot& slot = m_slots[m_begin & m_mask];
        line = std::move(slot.line);
        slot.line = Line(); // no memory of a line that has gone stays behind
        slot.turn.store(m_begin + m_mask + 1, std::memory_order_release);
        ++m_begin;
        return true;
    }

    /// How many lines have been added so far, those included that are being added just now, and those that have been
    /// taken since. Refused ones do not count. Any thread.
    Position added() const { return m_end.load(std::memory_order_acquire); }

private:
    struct Slot
    {
        std::atomic<Position> turn{0}; ///< as in the table; its store publishes the line, or the empty place
        Line line;                     ///< of the thread whose turn it is
    };
    const std::unique_ptr<Slot[]> m_slots;
    const Position m_mask;       ///< capacity - 1: picks the slot out of a position
    std::atomic<Position> m_end; ///< position that the next adding thread may win
    Position m_begin;            ///< position of the next line to take; the taking thread's own
};
