#pragma once

#include "configuration.h"

#include <QFile>
#include <QTemporaryDir>

/// A configuration store on files of its own, which vanish with it. Whoever uses it links tessaro_configuration.
class StoredConfiguration
{
public:
    /// @param appRows     lines of the app file below its heading: tag;value;from
    /// @param remotesRows lines of the remotes file below its heading: ruindex;RUID;PKY1;PKY2;PKY3;PKY4
    explicit StoredConfiguration(const QByteArray& appRows, const QByteArray& remotesRows = QByteArray())
    {
        writeApp(appRows);
        write(m_sources.remotesFile, "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nRow;Identity;;;;\n" + remotesRows);
        write(m_sources.keysFile, "tag;value;from\nKey;Value;Source\n");
        m_store = std::make_unique<Configuration>(m_sources, nullptr);
    }

    /// Replaces the rows of the app file. The store reads them when it is next told to.
    void writeApp(const QByteArray& rows) { write(m_sources.appFile, "tag;value;from\nKey;Value;Source\n" + rows); }

    Configuration* store() { return m_store.get(); }

private:
    static void write(const QString& path, const QByteArray& content)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write %s", qPrintable(path));
        }
    }

    QTemporaryDir m_folder;
    ConfigurationSources m_sources{m_folder.filePath(QStringLiteral("app.csv")),
                                   m_folder.filePath(QStringLiteral("remotes.csv")),
                                   m_folder.filePath(QStringLiteral("keys.csv")), QStringLiteral("no-interface")};
    std::unique_ptr<Configuration> m_store;
};
