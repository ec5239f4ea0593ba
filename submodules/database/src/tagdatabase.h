#pragma once

#include "database.h"
#include "tag.h"

#include <QByteArray>
#include <QString>
#include <QVector>

/// One tag file of an installation, and the link that all its tags belong to.
struct TagFile
{
    QString path;               ///< of a file as ConfigFile reads it, a row for each tag
    Tag::HostLinkType hostLink; ///< nothing in the file tells it
};

/// All tags of the base unit. Lives in the main thread and owns the tags that it loads.
///
/// `prePopulate` is called once, before any thread is started that reads tags. From then on the set of tags stands, so
/// `get`, `at` and `size` may be called from any thread; see `Tag` for what may be done with a tag there.
///
/// Who sets the values:
///
/// | tags                   | set by                                                                            |
/// |------------------------|-----------------------------------------------------------------------------------|
/// | BIIT                   | `processProsessData`, from each process image of the base controller              |
/// | BIOT, ECOT, EGOT, NOLK | whoever owns that link or state, by `Tag::setValue` or, by name, `setValueSlot`   |
///
/// All start as 0, false, an empty text or zero bytes: a tag does not tell whether it has ever been set.
class TagDatabase : public Database
{
    Q_OBJECT

public:
    explicit TagDatabase(QObject* parent = nullptr);

    /// Loads the tag files of the installation, `installedTagFiles()`. Waits for the disk. Needs the application
    /// object, which knows where the executable lies.
    void prePopulate();

    /// Where the tag files of an installation lie, in the order of loading: three at fixed places, two beside the
    /// executable. The order gives the tags their indexes.
    static QVector<TagFile> installedTagFiles();

    /// Loads the files in their order, behind the tags that are there already. A missing file is reported by a warning
    /// and skipped; of two tags of the same name, the first loaded stands, and the second is told by a warning.
    ///
    /// The files' contents are kept in memory as long as the database, and are not read again: what changes in a tag
    /// file holds from the next start on.
    void loadTagFiles(const QVector<TagFile>& files);

    /// As in `Database`, for tags: null for a record that is not a tag. The tag stays the database's.
    Q_INVOKABLE Tag* at(int index) const;
    /// By its name, upper and lower case told apart; null when there is none.
    Tag* get(QString tagName) const;

public slots:
    /// Distributes one process image of the base controller onto the BIIT tags, in index order. An image that ends
    /// before a tag's last byte is completed with zeros. Costs next to nothing for tags whose bytes did not change.
    ///
    ///     image  | 0A | 01 | 34 12 | ...
    ///              ^ startByte 0, byteSize 1
    ///                        ^ startByte 2, byteSize 2: a UINT reads 0x1234, a BE_UINT 0x3412
    ///
    /// Tags may overlap, and what no tag covers is ignored. Each changed tag is announced before the next one is
    /// looked at: a directly connected receiver of `valueUpdated` sees the tags before this one from this image, and
    /// those behind it from the one before. A tag of 0 bytes keeps its value.
    void processProsessData(QByteArray image);

    /// Sets the tag of that name to `value` as a signed int; an unknown name leaves a debug line. For senders in other
    /// threads, which have it queued.
    void setValueSlot(QString tagName, quint16 value);

protected:
    void recordAppended(Data* record) override;
    void recordsCleared() override;

private:
    void loadTagFile(const TagFile& file);

    /// A tag, and the raw bytes that it holds as long as its raw revision is `revision`. The tag's definition is looked
    /// at anew for every image, for it may be set after the appending.
    struct Input
    {
        Tag* tag;
        quint32 revision;
        QByteArray rawData;
    };
    static bool isUnchanged(const Input& input, const QByteArray& image);
    void feed(int inputIndex, const QByteArray& image);

    QVector<Input> m_inputs; ///< one for each tag, in index order, whatever its link
};
