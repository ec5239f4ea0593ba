#pragma once

#include "data.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QVariant>

#include <atomic>
#include <memory>

class TagDatabase;

/// How the bytes of a tag are read. The BE types read the most significant byte first, the others the least
/// significant.
enum tagDataType {
    TDBT_NOT_SET = 0,     ///< cannot be decoded: the value stands
    TDBT_UINT = 1,        ///< 1, 2 or 4 bytes, or bits of these; the value is an unsigned int
    TDBT_BE_UINT = 2,     ///< the same
    TDBT_INT = 3,         ///< 1, 2 or 4 bytes, or bits of 1 to 4; two's complement; the value is an int
    TDBT_BE_INT = 4,      ///< the same
    TDBT_REAL = 5,        ///< 4 bytes (a float) or 8 (a double), IEEE 754
    TDBT_BE_REAL = 6,     ///< the same
    TDBT_STRING = 7,      ///< Latin-1 up to the first zero byte; a QString
    TDBT_RAW = 8,         ///< the bytes as they are; a QByteArray
    TDBT_BOOLEAN = 9,     ///< the start bit of 1, 2 or 4 bytes
    TDBT_BE_BOOLEAN = 10, ///< the same
    TDBT_ENDOFENUMMARKER = 11,
};
Q_DECLARE_METATYPE(tagDataType)

/// One named process variable: where its bytes lie, how they are read, and the value that they last gave.
///
/// Belongs to the thread of its database. The definition (everything but the value) is set there before other threads
/// know the tag. The value may be read and set from any thread: bytes and value are published together as one immutable
/// snapshot, so that a reader sees a whole value, old or new. `valueUpdated` is emitted by the thread that set the
/// value; receivers in other threads get it queued.
///
///     the tag gets the bytes that it holds    nothing happens
///     it gets others                          they are decoded; bytes and value are published together
///       and the value is another one          `valueUpdated`, behind that
///
/// No lock is held while bytes are decoded or receivers run: of two threads that set a value at the same time both
/// succeed, one after the other, and the later one's stands. In which order receivers hear of the two is left open.
class Tag : public Data
{
    Q_OBJECT

public:
    /// The link or process image that a tag belongs to.
    enum HostLinkType {
        RIIT = 0, ///< of no tag file
        RIOT = 1, ///< of no tag file
        ECOT = 2, ///< field-bus (EC) output
        EGOT = 3, ///< machine-controller (EG) output
        BTRS = 4, ///< of no tag file
        BIIT = 5, ///< base internal input: filled from the base controller's process image
        BIOT = 6, ///< base internal output
        NOLK = 7, ///< on no link
        RICT = 8, ///< of no tag file
    };
    Q_ENUM(HostLinkType)

    /// The value is the int 0, and there are no bytes yet.
    explicit Tag(QString tagName, QObject* parent = nullptr);

    /// Replaces the value and announces it, unless `newValue` equals the current value as `QVariant` compares: a
    /// number of another type but of the same magnitude is equal, and leaves value and type as they are.
    ///
    /// `newValue` is taken as it is, of whatever type: it is neither converted to that of the definition nor held
    /// against the limits. Directly connected receivers run within this call.
    void setValue(const QVariant& newValue);

    /// Decodes the tag's own bytes, first byte first, and announces the value if it differs from the one before.
    ///
    /// The bytes that the tag already holds are not decoded again. A size or type that cannot be decoded is reported
    /// by a warning, once per change of the bytes; the value then stands, or becomes 0 for the unsigned types.
    ///
    /// Numbers and booleans are read from the first `byteSize` bytes; bytes that `data` lacks count as 0. A signed bit
    /// field is read from `data` as it is, and like a boolean it ends the process when the tag's definition places it
    /// outside the bytes (the assertions of `getIntFromBits` and `getBitValue`).
    void setValue(QByteArray data);

    /// The bytes last given to `setValue(QByteArray)`, however many these were; `setValue(QVariant)` leaves them. They
    /// and the value of a separate call may be of different moments.
    Q_INVOKABLE QByteArray getRawData() const;
    /// The newest value; its type is that of the decoding, or of what was set.
    Q_INVOKABLE QVariant getValue() const;

    /// @return the text stored for the current value, empty when there is none.
    Q_INVOKABLE QString getState() const;
    /// Stores or replaces the text for one value. Part of the definition: before other threads know the tag.
    void insertState(const QVariant& value, const QString& text);

    /// Counts the replacements of the raw bytes: who remembers this count and, read after it, the raw bytes knows the
    /// bytes while the count stands, and may leave out a `setValue` of the same ones. Wraps at 2^32. Any thread.
    quint32 rawRevision() const { return m_rawRevision.load(std::memory_order_acquire); }

    // The definition, set by whoever makes the tag from its row in a tag file, before other threads know the tag. Its
    // setters announce nothing and decode nothing: what they change holds from the next other bytes on.

    /// What people call the tag; the name is what programs call it.
    Q_INVOKABLE QString getLabel() const { return label; }
    void setLabel(const QString& newLabel) { label = newLabel; }

    /// Where the tag begins in its image, which begins at 0.
    Q_INVOKABLE quint16 getStartByte() const { return startByte; }
    void setStartByte(const quint16& newStartByte) { startByte = newStartByte; }

    /// How many bytes it takes, those of a bit field included. Which sizes a type has, see `tagDataType`.
    Q_INVOKABLE quint16 getByteSize() const { return byteSize; }
    void setByteSize(const quint16& newByteSize) { byteSize = newByteSize; }

    /// The first bit of a bit field or the bit of a boolean; bit 0 is the least significant one of the number.
    Q_INVOKABLE quint16 getStartBit() const { return startBit; }
    void setStartBit(const quint16& newStartBit) { startBit = newStartBit; }

    /// Number of bits; 0 means the whole byte field. For whole numbers only: a boolean has one bit whatever stands
    /// here, and the other types have none.
    ///
    ///     a UINT of one byte, B4 = 1011 0100; startBit 2, bitSize 3: 101 = 5, and as an INT -3
    Q_INVOKABLE quint16 getBitSize() const { return bitSize; }
    void setBitSize(const quint16& newBitSize) { bitSize = newBitSize; }

    Q_INVOKABLE tagDataType getDataType() const { return dataType; }
    void setDataType(tagDataType newDataType) { dataType = newDataType; }

    /// Kept for the tag's users; no tag file sets it.
    Q_INVOKABLE qint16 getPriority() const { return priority; }
    void setPriority(const qint16& newPriority) { priority = newPriority; }

    // Limits are kept for the tag's users; the tag itself does not judge its value by them. They are in the unit of
    // `getUnitLabel`, and 0 where the tag file gives none.
    Q_INVOKABLE float getMinimumValue() const { return minimumValue; }
    void setMinimumValue(const float& limit) { minimumValue = limit; }

    Q_INVOKABLE float getMaximumValue() const { return maximumValue; }
    void setMaximumValue(const float& limit) { maximumValue = limit; }

    Q_INVOKABLE float getMinimumWarningValue() const { return minimumWarningValue; }
    void setMinimumWarningValue(const float& limit) { minimumWarningValue = limit; }

    Q_INVOKABLE float getMaximumWarningValue() const { return maximumWarningValue; }
    void setMaximumWarningValue(const float& limit) { maximumWarningValue = limit; }

    Q_INVOKABLE float getMinimumAlarmValue() const { return minimumAlarmValue; }
    void setMinimumAlarmValue(const float& limit) { minimumAlarmValue = limit; }

    Q_INVOKABLE float getMaximumAlarmValue() const { return maximumAlarmValue; }
    void setMaximumAlarmValue(const float& limit) { maximumAlarmValue = limit; }

    Q_INVOKABLE QString getUnitLabel() const { return unitLabel; }
    void setUnitLabel(const QString& newUnitLabel) { unitLabel = newUnitLabel; }

    Q_INVOKABLE Tag::HostLinkType getHostLink() const { return hostLink; }
    void setHostLink(const HostLinkType& newHostLink) { hostLink = newHostLink; }

    /// Kept for the tag's users; neither set by a tag file nor applied to the value.
    Q_INVOKABLE quint32 getBitmask() const { return bitmask; }
    void setBitmask(const quint32& newBitmask) { bitmask = newBitmask; }

    /// Not owned; the tag does not use it.
    Q_INVOKABLE TagDatabase* getRelatedTags() const { return relatedTags; }
    void setRelatedTags(TagDatabase* database) { relatedTags = database; }

signals:
    /// The value has changed: emitted behind its publication, once for each change, by the thread that made it. By the
    /// time that a queued receiver has it, `getValue` may be newer.
    void valueUpdated(QVariant value);

private:
    /// What other threads may read: never changed once published.
    struct Content
    {
        QByteArray rawData; ///< the bytes last given to setValue(QByteArray)
        QVariant value;
    };
    using Snapshot = std::shared_ptr<const Content>;

    Snapshot content() const;
    bool publish(Snapshot& expected, const Snapshot& next);

    QVariant decoded(const QByteArray& bytes, const QVariant& current) const;
    QVariant decodedUnsigned(const QByteArray& bytes, bool bigEndian) const;
    QVariant decodedSigned(const QByteArray& bytes, bool bigEndian, const QVariant& current) const;
    QVariant decodedReal(const QByteArray& bytes, bool bigEndian, const QVariant& current) const;
    QVariant decodedBoolean(const QByteArray& bytes, bool bigEndian, const QVariant& current) const;

    Snapshot m_content; ///< only through content() and publish()
    std::atomic<quint32> m_rawRevision{0};

    QString label;
    quint16 startByte = 0; ///< bytes from the beginning of the image
    quint16 byteSize = 0;  ///< bytes
    quint16 startBit = 0;  ///< 0 is the least significant one
    quint16 bitSize = 0;   ///< 0: all
    tagDataType dataType = TDBT_NOT_SET;
    qint16 priority = 0;
    float minimumValue = 0.0F;
    float maximumValue = 0.0F;
    float minimumWarningValue = 0.0F;
    float maximumWarningValue = 0.0F;
    float minimumAlarmValue = 0.0F;
    float maximumAlarmValue = 0.0F;
    QString unitLabel;
    HostLinkType hostLink = NOLK;
    quint32 bitmask = 0;
    TagDatabase* relatedTags = nullptr;
    QMap<QVariant, QString> states; ///< texts by value; not changed once other threads know the tag
};
