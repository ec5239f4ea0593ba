#include "tagdatabase.h"

#include "configfile.h"
#include "tagrow.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>

#include <algorithm>
#include <cstring>

namespace {

/// How many of the bytes `start` .. `start + size - 1` an image has.
int bytesPresent(const QByteArray& image, int start, int size)
{
    return std::min(std::max(image.size() - start, 0), size);
}

/// The bytes `start` .. `start + size - 1` of an image, with zeros for those that it lacks.
QByteArray cutOut(const QByteArray& image, int start, int size)
{
    const int present = bytesPresent(image, start, size);
    QByteArray bytes(size, '\0');
    std::copy_n(image.constData() + (present > 0 ? start : 0), present, bytes.data());
    return bytes;
}

/// Whether `cutOut(image, start, bytes.size())` equals `bytes`, without making it.
bool imageHolds(const QByteArray& image, int start, const QByteArray& bytes)
{
    const int present = bytesPresent(image, start, bytes.size());
    const char* const rest = bytes.constData() + present;
    return (present == 0 || std::memcmp(image.constData() + start, bytes.constData(), present) == 0) &&
           std::all_of(rest, bytes.constData() + bytes.size(), [](char byte) { return byte == '\0'; });
}

} // namespace

TagDatabase::TagDatabase(QObject* parent)
    : Database(parent)
{}

void TagDatabase::prePopulate()
{
    loadTagFiles(installedTagFiles());
}

QVector<TagFile> TagDatabase::installedTagFiles()
{
    const QString shared = QStringLiteral("/home/root/Applications/.config/");
    const QString own = QCoreApplication::applicationDirPath() + QLatin1String("/config/");
    return {
        {shared + QLatin1String("baseInternalInputTags.csv"), Tag::BIIT},
        {shared + QLatin1String("baseInternalOutputTags.csv"), Tag::BIOT},
        {shared + QLatin1String("baseInternalTags.csv"), Tag::NOLK},
        {own + QLatin1String("ECOutputTags.csv"), Tag::ECOT},
        {own + QLatin1String("EGOutputTags.csv"), Tag::EGOT},
    };
}

void TagDatabase::loadTagFiles(const QVector<TagFile>& files)
{
    for (const TagFile& file : files) {
        qDebug() << "loading" << file.path;
        if (QFile::exists(file.path)) {
            loadTagFile(file);
        } else {
            qWarning() << "Could not find the configuration file: " << file.path;
        }
    }
}

void TagDatabase::loadTagFile(const TagFile& file)
{
    const auto* const table = new ConfigFile(file.path, this);
    const QVector<QString> rowNames = table->getAllTags();
    for (const QString& rowName : rowNames) {
        append(makeTag(*table, rowName, file.hostLink, this));
    }
}

Tag* TagDatabase::at(int index) const
{
    if (!holdsIndex(index)) {
        qWarning() << "TagDatabase: index is out of range, index =" << index << "size =" << size();
        return nullptr;
    }
    return qobject_cast<Tag*>(recordAt(index));
}

Tag* TagDatabase::get(QString tagName) const
{
    return qobject_cast<Tag*>(Database::get(tagName));
}

void TagDatabase::processProsessData(QByteArray image)
{
    // By index and against the current size: a receiver of valueUpdated may append or clear.
    for (int i = 0; i < m_inputs.size(); ++i) {
        const Input& input = m_inputs.at(i);
        if (input.tag->getHostLink() == Tag::BIIT && !isUnchanged(input, image)) {
            feed(i, image);
        }
    }
}

void TagDatabase::setValueSlot(QString tagName, quint16 value)
{
    Tag* const tag = get(tagName);
    if (tag == nullptr) {
        qDebug() << "Tagdatabase - undefined tag" << tagName;
        return;
    }
    tag->setValue(QVariant(static_cast<int>(value)));
}

void TagDatabase::recordAppended(Data* record)
{
    if (Tag* const tag = qobject_cast<Tag*>(record)) {
        m_inputs.append({tag, tag->rawRevision(), tag->getRawData()});
    }
}

void TagDatabase::recordsCleared()
{
    m_inputs.clear();
}

bool TagDatabase::isUnchanged(const Input& input, const QByteArray& image)
{
    const Tag& tag = *input.tag;
    return input.revision == tag.rawRevision() && input.rawData.size() == tag.getByteSize() &&
           imageHolds(image, tag.getStartByte(), input.rawData);
}

void TagDatabase::feed(int inputIndex, const QByteArray& image)
{
    Tag* const tag = m_inputs.at(inputIndex).tag;
    const QByteArray bytes = cutOut(image, tag->getStartByte(), tag->getByteSize());
    tag->setValue(bytes);

    // Receivers of valueUpdated may have changed the database, and others the tag: what is remembered is what it holds
    // now. The revision is read first, so that a change in between shows as a newer one.
    if (inputIndex < m_inputs.size() && m_inputs.at(inputIndex).tag == tag) {
        const quint32 revision = tag->rawRevision();
        m_inputs[inputIndex] = {tag, revision, tag->getRawData()};
    }
}
