// What the kernel says of the threads of a process: the only one who knows of a wake-up before the woken thread does.
#pragma once

#include <array>
#include <string>

namespace virtualtime {

enum class TaskState { Asleep, Stopped, Busy, Gone };

/// The state of each thread, by an index of the caller's; the files of /proc stay open between two questions.
class TaskStates
{
public:
    explicit TaskStates(int process);
    ~TaskStates();
    TaskStates(const TaskStates&) = delete;
    TaskStates& operator=(const TaskStates&) = delete;

    TaskState of(int index, int thread);

    /// All of the process, known here or not.
    bool allRest() const;

    /// Whether one of its threads has a child process that is at work or, if asked for, one that has ended and of which
    /// the process has not yet taken notice.
    bool hasChild(bool ended) const;

    int process() const;

private:
    struct Entry
    {
        int thread = 0;
        int file = -1;
    };

    std::string folder() const;

    int m_process;
    std::array<Entry, 256> m_entries;
};

} // namespace virtualtime
