#pragma once

#include <QMutex>
#include <QStringList>
#include <QtGlobal>

/// Records the log lines of all threads while it lives; at most one may exist at a time. Lines are not printed.
class LogSpy
{
public:
    LogSpy();
    ~LogSpy();
    LogSpy(const LogSpy&) = delete;
    LogSpy& operator=(const LogSpy&) = delete;

    /// All lines so far, without time stamp, in the order in which they were written.
    QStringList lines() const;
    /// The lines of one level.
    QStringList lines(QtMsgType type) const;
    bool contains(const QString& line) const;
    int count(const QString& line) const;
    void clear();

private:
    static void record(QtMsgType type, const QMessageLogContext& context, const QString& message);

    struct Entry
    {
        QtMsgType type;
        QString text;
    };
    mutable QMutex m_mutex;
    QList<Entry> m_entries;
    QtMessageHandler m_previous = nullptr;
};
