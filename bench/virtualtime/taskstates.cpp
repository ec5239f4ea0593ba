#include "taskstates.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace virtualtime {
namespace {

TaskState stateIn(const char* stat)
{
    const char* end = strrchr(stat, ')'); // behind the name, which may hold anything
    switch (end && end[1] ? end[2] : 'X') {
    case 'S':
    case 'I': return TaskState::Asleep;
    case 'T':
    case 't': return TaskState::Stopped;
    case 'Z':
    case 'X': return TaskState::Gone;
    default: return TaskState::Busy;
    }
}

TaskState readState(int file)
{
    char text[160]; // the state stands in the first hundred
    const ssize_t count = pread(file, text, sizeof(text) - 1, 0);
    if (count <= 0) {
        return TaskState::Gone;
    }
    text[count] = 0;
    return stateIn(text);
}

std::string contentOf(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char text[4096] = {};
    if (file >= 0) {
        const ssize_t count = read(file, text, sizeof(text) - 1);
        text[count > 0 ? count : 0] = 0;
        close(file);
    }
    return text;
}

std::vector<std::string> entriesOf(const std::string& folder)
{
    std::vector<std::string> names;
    DIR* directory = opendir(folder.c_str());
    while (const dirent* entry = directory ? readdir(directory) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    if (directory) {
        closedir(directory);
    }
    return names;
}

} // namespace

TaskStates::TaskStates(int process)
    : m_process(process)
{}

TaskStates::~TaskStates()
{
    for (const Entry& entry : m_entries) {
        if (entry.file >= 0) {
            close(entry.file);
        }
    }
}

TaskState TaskStates::of(int index, int thread)
{
    Entry& entry = m_entries[static_cast<size_t>(index)];
    if (entry.thread != thread) {
        if (entry.file >= 0) {
            close(entry.file);
        }
        entry.file = open((folder() + std::to_string(thread) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
        entry.thread = thread;
    }
    return entry.file < 0 ? TaskState::Gone : readState(entry.file);
}

bool TaskStates::allRest() const
{
    for (const std::string& task : entriesOf(folder())) {
        const std::string text = contentOf(folder() + task + "/stat");
        if (!text.empty() && stateIn(text.c_str()) == TaskState::Busy) {
            return false;
        }
    }
    return true;
}

bool TaskStates::hasChild(bool ended) const
{
    for (const std::string& task : entriesOf(folder())) {
        std::istringstream children(contentOf(folder() + task + "/children"));
        for (std::string child; children >> child;) {
            const std::string text = contentOf("/proc/" + child + "/stat");
            if (!text.empty() && (ended || stateIn(text.c_str()) != TaskState::Gone)) {
                return true;
            }
        }
    }
    return false;
}

int TaskStates::process() const
{
    return m_process;
}

std::string TaskStates::folder() const
{
    return "/proc/" + std::to_string(m_process) + "/task/";
}

} // namespace virtualtime
