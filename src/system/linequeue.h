#pragma once

#include <QByteArray>

#include <atomic>
#include <cstddef>
#include <memory>

/// Lines on their way from any number of threads to the one that writes them: a ring of fixed size without a lock, so
/// that a thread that is held up in the middle of a call holds up no other thread that adds.
///
/// Each slot carries a number that tells whose turn it is: equal to the position of the next line that may be put
/// there, or one more once the line is there. Adding threads take positions in order, which is the order of the lines.
class LineQueue
{
public:
    /// @param capacity  a power of two.
    explicit LineQueue(std::size_t capacity)
        : m_slots(new Slot[capacity])
        , m_mask(capacity - 1)
    {
        for (std::size_t i = 0; i < capacity; ++i) {
            m_slots[i].turn.store(i, std::memory_order_relaxed);
        }
    }

    struct Line
    {
        QByteArray text;
        std::size_t lostBefore = 0; ///< lines that were refused since the line before this one
    };

    /// Puts a line at the end. Any thread; never waits.
    /// @return false, with `line` untouched, when there is no room.
    bool push(Line& line)
    {
        std::size_t position = m_end.load(std::memory_order_relaxed);
        while (true) {
            Slot& slot = m_slots[position & m_mask];
            const std::size_t turn = slot.turn.load(std::memory_order_acquire);
            if (turn == position) {
                if (m_end.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
                    slot.line = std::move(line);
                    slot.turn.store(position + 1, std::memory_order_release);
                    return true;
                }
            } else if (turn < position) {
                return false; // the line of the round before is still there
            } else {
                position = m_end.load(std::memory_order_relaxed); // another thread was faster
            }
        }
    }

    /// Whether there is a line to take. Only in the thread that takes.
    bool hasLine() const { return m_slots[m_begin & m_mask].turn.load(std::memory_order_acquire) == m_begin + 1; }

    /// Takes the line at the front. One thread only. @return false when none is ready.
    bool pop(Line& line)
    {
        if (!hasLine()) {
            return false;
        }
        Slot& slot = m_slots[m_begin & m_mask];
        line = std::move(slot.line);
        slot.line = Line();
        slot.turn.store(m_begin + m_mask + 1, std::memory_order_release);
        ++m_begin;
        return true;
    }

    /// How many lines have been added so far, those included that are being added just now. Any thread.
    std::size_t added() const { return m_end.load(std::memory_order_acquire); }

private:
    struct Slot
    {
        std::atomic<std::size_t> turn{0};
        Line line;
    };
    const std::unique_ptr<Slot[]> m_slots;
    const std::size_t m_mask;
    std::atomic<std::size_t> m_end{0};
    std::size_t m_begin = 0;
};
