#pragma once

#include "pairingrecords.h"
#include "textfile.h"

#include <QString>
#include <QVector>

#include <optional>

/// One handing-out of an application, and the pairing that belongs to it, as one act: the archive and all changed files
/// are there together, or nothing has changed.
///
/// Everything is made beside what stands: in the hidden folder ".APPLICATION.pairing" next to the application a copy of
/// it, of further names for the same files and with its new configuration, which is packed; in the folder of the
/// records the new remotes file. Then the files that are to be replaced get a second name, the new ones are renamed
/// into their places, and one last rename makes it valid. Until then whatever interrupts it is undone: a failure by
/// this object's end, the end of the process by the next start.
///
///     .APPLICATION.pairing/APPLICATION        what is packed
///     .APPLICATION.pairing/APPLICATION.tar    the archive
///     .APPLICATION.pairing/old/...            second names of the application's files
///     config/.pairing/remotes.csv.new, .old   the same for the remotes file
///
/// What the record says decides on what a start finds, whenever the process ended before:
///
/// | record       | written                    | the application and the remotes file are              |
/// |--------------|----------------------------|-------------------------------------------------------|
/// | none         |                            | as ever; nothing of an act lies beside them           |
/// | NAME.undo    | before anything else       | old or new, one by one: the old ones are put back     |
/// | NAME.archive | as the last step, a rename | new; an archive that nobody has fetched is removed    |
///
/// One at a time. Belongs to the thread that writes the configuration's files; waits for the disk. After a failure
/// `reason` says what was in the way.
class PairingAct
{
public:
    /// Touches no file.
    /// @param appPath  a clean absolute path.
    /// @param records  outlive this object.
    PairingAct(const QString& appPath, const PairingRecords& records);
    /// Undoes what is not complete. What the disk does not let it undo is tried again by undoPairings().
    ~PairingAct();
    PairingAct(const PairingAct&) = delete;
    PairingAct& operator=(const PairingAct&) = delete;

    /// Makes everything but the archive. `application` are files in the application, `remotes` is the remotes file;
    /// an application that is not paired has neither.
    /// @param application  none, or what prepareApplicationConfig() gives, in its order.
    /// @return false when something could not be made; then the object is of no use but for its `reason`.
    bool prepare(const QVector<TextFileChange>& application, const std::optional<TextFileChange>& remotes);
    /// What is to be packed then; the archive belongs beside it. Its last part is the application's own name, which the
    /// archive is to have as its top folder.
    QString folderToPack() const;
    /// The archive stands: replaces the files and makes it all valid. Once, after `prepare` succeeded.
    /// @return false when a file is not as `prepare` was told that it is (somebody else has written it meanwhile), or
    ///         something could not take its place. This object's end then puts back what has changed.
    bool complete();
    /// The path that was in the way and what the system says of it, for the log; empty before a failure.
    QString reason() const { return m_reason; }

    /// Where the archive lies in the end: beside the application, under its name and ".tar".
    static QString archiveOf(const QString& appPath);
    /// Puts everything back as it was before an act that did not come to its end. @return false when the disk did not
    /// let it; the record stays, and with it the order to do so.
    static bool undo(const QString& appPath, const PairingRecords& records);
    /// The archive in this place is gone: so is its record, unless more is left for the next start to clear away.
    static void forgetArchive(const QString& archive, const PairingRecords& records);
    /// Removes what an act may have left beside the application, the archive included.
    static bool clearAway(const QString& appPath, const PairingRecords& records);

private:
    /// One file that gets a new content.
    struct Replacement
    {
        TextFileChange change;
        QString fresh; ///< where the new content waits
        QString old;   ///< second name of what it replaces
    };

    bool attempt(bool done, const QString& what);
    bool begin();
    bool stageApplication();
    bool stageReplacements();
    bool nothingHasChanged();
    bool nameTheOld();
    bool replaceAll();

    const QString m_appPath;
    const PairingRecords& m_records;
    QVector<Replacement> m_replacements; ///< in the order in which they take their places
    QStringList m_leftOut;               ///< of the application, when it is packed
    QString m_reason;
    bool m_begun = false; ///< there is a record, and something to be undone
};
