#pragma once

#include "configuration.h"

#include <QFile>
#include <QTemporaryDir>

/// The three files of a small configuration in a temporary folder of its own.
class ConfigurationFiles
{
public:
    ConfigurationFiles()
    {
        putApp("");
        putRemotes("");
        putKeys("");
    }

    /// An interface that no machine has, until a test names another.
    ConfigurationSources sources(const QString& egLinkInterface = QStringLiteral("no-such-eth")) const
    {
        return {m_folder.filePath("app.csv"), m_folder.filePath("remotes.csv"), m_folder.filePath("keys.csv"),
                egLinkInterface};
    }

    void putApp(const QByteArray& rows) const { put(sources().appFile, "tag;from;value\nKey;Origin;Value\n" + rows); }
    void putKeys(const QByteArray& rows) const { put(sources().keysFile, "tag;from;value\nKey;Origin;Value\n" + rows); }
    void putRemotes(const QByteArray& rows) const { put(sources().remotesFile, remotesHeader() + rows); }

    static void put(const QString& path, const QByteArray& content)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot lay the test file");
        }
    }

    static QByteArray remotesHeader() { return "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Remote id;Key;Key;Key;Key\n"; }

    /// The data lines of the remotes file.
    QByteArray remoteRows() const
    {
        QFile file(sources().remotesFile);
        const QByteArray content = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        return content.startsWith(remotesHeader()) ? content.mid(remotesHeader().size()) : "(no header) " + content;
    }

private:
    QTemporaryDir m_folder;
};
