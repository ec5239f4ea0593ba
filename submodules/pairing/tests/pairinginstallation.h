#pragma once

#include "applicationmanifest.h"
#include "configuration.h"
#include "pairserver.h"
#include "tag.h"
#include "tagdatabase.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <memory>

/// A base unit's files in a folder of their own, with one user and one system application for remote units, and the
/// objects that the pairing service works on. Base unit 1001; remote unit 7 is known, with old keys.
class PairingInstallation
{
public:
    PairingInstallation()
    {
        write("tessaroserver/config/app.csv", "tag;from;value\nKey;Origin;Value\nCCH1;BC;11\nCCH2;RGP;4000000000\n"
                                              "SID1;local;site\nWPA1;local;pass phrase\nEGDH;local;0\n");
        write("tessaroserver/config/keys.csv", "tag;from;value\nKey;Origin;Value\n");
        write("tessaroserver/config/remotes.csv",
              "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Unit;1;2;3;4\n0;7;1;2;3;4\n");
        write("ruapp/manifest.csv", "target;ru\ntype;user\nname;Crane panel\n");
        write("ruapp/config/app.csv", "tag;value;note\nKey;Value;Note\nVOLT;24;kept\nBUID;0;base\nSID1;none;net\n");
        write("ruapp/config/keys.csv", "tag;value\nKey;Value\nPKY1;0\nPKY2;0\nPKY3;0\nPKY4;0\n");
        write("rusys/manifest.csv", "target;ru\ntype;system\n");
        write("rusys/config/keys.csv", "tag;value\nKey;Value\nPKY1;0\n");
        ApplicationManifest::setRoot(root());
        tags.append(identity);
        identity->setValue(QVariant(1001U));
        configuration = std::make_unique<Configuration>(sources(), nullptr);
    }
    ~PairingInstallation() { ApplicationManifest::setRoot(QString()); }
    PairingInstallation(const PairingInstallation&) = delete;
    PairingInstallation& operator=(const PairingInstallation&) = delete;

    std::unique_ptr<PairServer> newServer(std::chrono::milliseconds stallLimit = std::chrono::seconds(60),
                                          std::chrono::milliseconds tarPatience = std::chrono::seconds(60))
    {
        const PairServerPlace place{QStringLiteral("127.0.0.1"), 0, 0, stallLimit, tarPatience};
        return std::make_unique<PairServer>(configuration.get(), &tags, place, nullptr);
    }

    QString root() const { return m_folder.path(); }
    QString path(const QByteArray& name) const { return root() + QLatin1Char('/') + QString::fromLatin1(name); }
    void write(const QByteArray& name, const QByteArray& content)
    {
        QDir().mkpath(QFileInfo(path(name)).path());
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write %s", name.constData());
        }
    }
    QByteArray read(const char* name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
    }
    /// All files by name, hidden ones included, with their content.
    QMap<QString, QByteArray> everything() const
    {
        QMap<QString, QByteArray> files;
        QDirIterator entries(root(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                             QDirIterator::Subdirectories);
        while (entries.hasNext()) {
            QFile file(entries.next());
            files.insert(file.fileName(), file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("a folder"));
        }
        return files;
    }
    /// The value of one row of a table of this installation: what stands behind "tag;" up to the next separator.
    QByteArray valueOf(const char* name, const QByteArray& tag) const
    {
        for (const QByteArray& line : read(name).split('\n')) {
            if (line.startsWith(tag + ';')) {
                return line.split(';').at(1);
            }
        }
        return "no such row";
    }

private:
    ConfigurationSources sources() const
    {
        return {path("tessaroserver/config/app.csv"), path("tessaroserver/config/remotes.csv"),
                path("tessaroserver/config/keys.csv"), QStringLiteral("no such interface")};
    }

    QTemporaryDir m_folder;

public:
    TagDatabase tags;
    Tag* identity = new Tag(QStringLiteral("bu_identity"), &tags);
    std::unique_ptr<Configuration> configuration;
};
