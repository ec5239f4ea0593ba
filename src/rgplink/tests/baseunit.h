#pragma once

#include "applicationmanifest.h"
#include "configuration.h"
#include "tag.h"
#include "tagdatabase.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

/// The surroundings of a hub under test: tags, the configuration of two paired units (5 and 6), and a folder for
/// installed applications, empty at first.
class BaseUnit
{
public:
    static constexpr quint16 Identity = 0x0405;

    BaseUnit()
    {
        ApplicationManifest::setRoot(m_folder.filePath("Applications"));
        write("remotes.csv", "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Id;K;K;K;K\n0;5;0;0;0;0\n1;6;0;0;0;0\n");
        write("app.csv", "tag;value;from\nTag;Value;From\nEGDH;0;local\n");
        write("keys.csv", "tag;value;from\nTag;Value;From\n");
        const ConfigurationSources sources{m_folder.filePath("app.csv"), m_folder.filePath("remotes.csv"),
                                           m_folder.filePath("keys.csv"), QStringLiteral("lo")};
        configuration.reset(new Configuration(sources, nullptr));
        for (const char* name : {"bu_identity", "bu_state", "tsaps", "unarmed_rus", "eglink_stat_out", "eclink_status",
                                 "armed_ru", "total_rus"}) {
            setTag(name, 0);
        }
        setTag("bu_identity", Identity);
    }
    ~BaseUnit() { ApplicationManifest::setRoot(QString()); }
    BaseUnit(const BaseUnit&) = delete;
    BaseUnit& operator=(const BaseUnit&) = delete;

    void setTag(const char* name, const QVariant& value)
    {
        Tag* tag = tags.get(name);
        if (tag == nullptr) {
            tag = new Tag(name, &tags);
            tags.append(tag);
        }
        tag->setValue(value);
    }
    int tagValue(const char* name) const { return tags.get(name)->getValue().toInt(); }

    /// Installs the user application of the remote units, one file with that content beside the manifest.
    /// @return the MD5 that remote units report of it.
    QByteArray installApplication(const QByteArray& content) const
    {
        const QByteArray manifest = "target;ru\ntype;user\n";
        write("Applications/ruapp/manifest.csv", manifest);
        write("Applications/ruapp/panel.qml", content);
        return QCryptographicHash::hash(manifest + content, QCryptographicHash::Md5);
    }

    /// Puts a device beside it. Whoever hashes the application refuses to read that with a line in the log that begins
    /// with `DeviceLine`: there he can be held, so that the hashing takes as long as a test wants.
    void addDevice() const
    {
        if (!QFile::link("/dev/null", m_folder.filePath("Applications/ruapp/device"))) {
            qFatal("Cannot write the files of the test");
        }
    }
    static constexpr char DeviceLine[] = "Md5Checksum: Refused to read";

    TagDatabase tags;
    QScopedPointer<Configuration> configuration;

private:
    void write(const QString& name, const QByteArray& content) const
    {
        const QString path = m_folder.filePath(name);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("Cannot write the files of the test");
        }
    }

    QTemporaryDir m_folder;
};

/// The payload of an INIT: version 1.2, that unit, that base unit, that checksum (zeros when empty).
inline QByteArray initPayload(quint16 remoteId, quint16 baseId, QByteArray checksum = QByteArray())
{
    checksum.append(QByteArray(16 - checksum.size(), '\0'));
    const char ids[] = {char(remoteId), char(remoteId >> 8), char(baseId), char(baseId >> 8)};
    return QByteArray("\x01\x02") + QByteArray(ids, sizeof(ids)) + checksum;
}

/// The payload of an INITACK, its text padded to 40 bytes.
inline QByteArray initAckPayload(char errorCode, const QByteArray& text)
{
    return QByteArray(1, errorCode) + '\0' + text + QByteArray(40 - text.size(), '\0');
}
