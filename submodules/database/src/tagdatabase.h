#pragma once

#include "database.h"
#include "tag.h"

#include <QByteArray>
#include <QString>
#include <QVector>

/// One tag file of an installation, and the link that all its tags belong to.
struct TagFile
{
    QString path;
    Tag::HostLinkType hostLink;
};

/// All tags of the base unit. Lives in the main thread and owns the tags that it loads.
///
/// `prePopulate` is called once, before any thread is started that reads tags. From then on the set of tags stands, so
/// `get`, `at` and `size` may be called from any thread; see `Tag` for what may be done with a tag there.
class TagDatabase : public Database
{
    Q_OBJECT

public:
    explicit TagDatabase(QObject* parent = nullptr);

    /// Loads the tag files of the installation, `installedTagFiles()`.
    void prePopulate();

    /// Where the tag files of an installation lie, in the order of loading: three at fixed places, two beside the
    /// executable. The order gives the tags their indexes.
    static QVector<TagFile> installedTagFiles();

    /// Loads the files in their order. A missing file is reported by a warning and skipped; of two tags of the same
    /// name, the first loaded stands.
    void loadTagFiles(const QVector<TagFile>& files);

    /// As in `Database`, for tags: null for a record that is not a tag. The tag stays the database's.
    Q_INVOKABLE Tag* at(int index) const;
    /// By its name, upper and lower case told apart; null when there is none.
    Tag* get(QString tagName) const;

public slots:
    /// Distributes one process image of the base controller onto the BIIT tags, in index order. An image that ends
    /// before a tag's last byte is completed with zeros. Costs next to nothing for tags whose bytes did not change.
    void processProsessData(QByteArray image);

    /// Sets the tag of that name to `value` as a signed int; an unknown name leaves a debug line.
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

    QVector<Input> m_inputs;
};
