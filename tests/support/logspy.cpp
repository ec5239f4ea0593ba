#include "logspy.h"

#include <QMutexLocker>

namespace {
LogSpy* s_active = nullptr;
}

LogSpy::LogSpy()
{
    if (s_active != nullptr) {
        qFatal("Two spies on one log: the second would take the first one's lines.");
    }
    s_active = this;
    m_previous = qInstallMessageHandler(&LogSpy::record);
}

LogSpy::~LogSpy()
{
    qInstallMessageHandler(m_previous);
    s_active = nullptr;
}

QStringList LogSpy::lines() const
{
    const QMutexLocker lock(&m_mutex);
    QStringList all;
    for (const Entry& entry : m_entries) {
        all.append(entry.text);
    }
    return all;
}

QStringList LogSpy::lines(QtMsgType type) const
{
    const QMutexLocker lock(&m_mutex);
    QStringList matching;
    for (const Entry& entry : m_entries) {
        if (entry.type == type) {
            matching.append(entry.text);
        }
    }
    return matching;
}

bool LogSpy::contains(const QString& line) const
{
    return lines().contains(line);
}

int LogSpy::count(const QString& line) const
{
    return lines().count(line);
}

void LogSpy::clear()
{
    const QMutexLocker lock(&m_mutex);
    m_entries.clear();
}

void LogSpy::record(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(context)
    if (s_active == nullptr) {
        return;
    }
    const QMutexLocker lock(&s_active->m_mutex);
    s_active->m_entries.append({type, message});
}
