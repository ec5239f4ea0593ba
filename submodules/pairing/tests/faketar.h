#pragma once

#include "patience.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// Puts another program in the place of the system's tar, by way of PATH, for as long as it lives.
class FakeTar
{
public:
    enum Kind {
        Recording, ///< notes the call and does nothing
        Waiting,   ///< notes the call, waits for `release`, and then makes an archive of the three bytes "abc"
        Hanging,   ///< makes the file that it was asked for and never ends
        Failing,   ///< ends with exit code 2
        Torn,      ///< makes an archive of the three bytes "abc" and ends with exit code 2
        Growing,   ///< makes an archive that grows and grows
        Writing,   ///< makes an archive of the three bytes "abc"
        Talking,   ///< writes to both output channels
        Reading,   ///< reads its standard input to the end, then says so
        Missing    ///< there is no tar at all
    };

    explicit FakeTar(Kind kind)
        : m_path(qgetenv("PATH"))
    {
        if (kind == Missing) {
            qputenv("PATH", m_folder.path().toLocal8Bit());
            return;
        }
        QFile script(m_folder.filePath(QStringLiteral("tar")));
        script.open(QIODevice::WriteOnly);
        script.write("#!/bin/sh\nhere=" + m_folder.path().toLocal8Bit() + '\n' + body(kind) + '\n');
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", m_folder.path().toLocal8Bit() + ':' + m_path);
    }
    ~FakeTar() { qputenv("PATH", m_path); }
    FakeTar(const FakeTar&) = delete;
    FakeTar& operator=(const FakeTar&) = delete;

    /// One text for each call: working directory and arguments, with "|" between them.
    QStringList calls() const
    {
        return QString::fromLocal8Bit(content("calls")).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    void release() const { QFile(m_folder.filePath(QStringLiteral("gate"))).open(QIODevice::WriteOnly); }
    qint64 processId() const { return content("pid").trimmed().toLongLong(); }

private:
    static QByteArray body(Kind kind)
    {
        QByteArray note = "line=$PWD; for part; do line=\"$line|$part\"; done; echo \"$line\" >> $here/calls\n";
        switch (kind) {
        case Recording: return note;
        case Waiting: return note + "while [ ! -e $here/gate ]; do sleep 0.01; done; printf abc > \"$2\"";
        case Hanging: return ": > \"$2\"; echo $$ > $here/pid; exec sleep 60";
        case Failing: return "exit 2";
        case Torn: return "printf abc > \"$2\"; exit 2";
        case Growing: return "while true; do printf abc >> \"$2\"; sleep 0.01; done";
        case Writing: return "printf abc > \"$2\"";
        case Talking: return "echo said aloud; echo complained >&2";
        case Reading: return "cat > $here/input; echo end of input";
        case Missing: break;
        }
        return {};
    }

    QByteArray content(const char* name) const
    {
        QFile file(m_folder.filePath(QString::fromLatin1(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir m_folder;
    QByteArray m_path;
};
