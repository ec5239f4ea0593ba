#include "tag.h"

#include "utillityfunctions.h"

#include <QDebug>

#include <utility>

namespace {

/// The first `size` bytes; a short array is completed with zeros, so that no reader runs past its end.
QByteArray exactly(const QByteArray& bytes, int size)
{
    if (bytes.size() == size) {
        return bytes;
    }
    QByteArray field = bytes.left(size);
    field.append(QByteArray(size - field.size(), '\0'));
    return field;
}

/// Bytes up to the first zero byte, one character each.
QString textOf(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.constData(), static_cast<int>(qstrnlen(bytes.constData(), bytes.size())));
}

} // namespace

Tag::Tag(QString tagName, QObject* parent)
    : Data(std::move(tagName), parent)
    , m_content(std::make_shared<const Content>(Content{QByteArray(), QVariant(0)}))
{
    // Nobody can be connected yet; the emission states that a new tag has a value from the start.
    emit valueUpdated(getValue()); // clazy:exclude=incorrect-emit
}

void Tag::setValue(const QVariant& newValue)
{
    Snapshot before = content();
    Snapshot next;
    do {
        if (newValue == before->value) {
            return;
        }
        next = std::make_shared<const Content>(Content{before->rawData, newValue});
    } while (!publish(before, next));
    emit valueUpdated(newValue);
}

void Tag::setValue(QByteArray data)
{
    Snapshot before = content();
    Snapshot next;
    do {
        if (data == before->rawData) {
            return;
        }
        next = std::make_shared<const Content>(Content{data, decoded(data, before->value)});
    } while (!publish(before, next));
    m_rawRevision.fetch_add(1, std::memory_order_acq_rel);
    if (next->value != before->value) {
        emit valueUpdated(next->value);
    }
}

QByteArray Tag::getRawData() const
{
    return content()->rawData;
}

QVariant Tag::getValue() const
{
    return content()->value;
}

QString Tag::getState() const
{
    return states.value(getValue());
}

void Tag::insertState(const QVariant& value, const QString& text)
{
    states.insert(value, text);
}

Tag::Snapshot Tag::content() const
{
    return std::atomic_load(&m_content);
}

/// Swaps `next` in if `expected` is still the published content; otherwise fetches the published one into `expected`.
bool Tag::publish(Snapshot& expected, const Snapshot& next)
{
    return std::atomic_compare_exchange_strong(&m_content, &expected, next);
}

QVariant Tag::decoded(const QByteArray& bytes, const QVariant& current) const
{
    switch (dataType) {
    case TDBT_UINT: return decodedUnsigned(bytes, false);
    case TDBT_BE_UINT: return decodedUnsigned(bytes, true);
    case TDBT_INT: return decodedSigned(bytes, false, current);
    case TDBT_BE_INT: return decodedSigned(bytes, true, current);
    case TDBT_REAL: return decodedReal(bytes, false, current);
    case TDBT_BE_REAL: return decodedReal(bytes, true, current);
    case TDBT_STRING: return textOf(bytes);
    case TDBT_RAW: return bytes;
    case TDBT_BOOLEAN: return decodedBoolean(bytes, false, current);
    case TDBT_BE_BOOLEAN: return decodedBoolean(bytes, true, current);
    case TDBT_NOT_SET:
    case TDBT_ENDOFENUMMARKER: break;
    }
    qWarning() << "setTagValue - type error for" << getTag() << "- setValue:" << bytes << "current value:" << current
               << "dataType:" << static_cast<int>(dataType);
    return current;
}

/// Unlike the other numbers, an unsigned one of a bad size becomes 0 instead of keeping its value.
QVariant Tag::decodedUnsigned(const QByteArray& bytes, bool bigEndian) const
{
    const QByteArray field = exactly(bytes, byteSize);
    unsigned int number = 0;
    switch (byteSize) {
    case 4: number = toUint32(field, bigEndian); break;
    case 2: number = toUint16(field, bigEndian); break;
    case 1: number = toUint8(field); break;
    default: qWarning() << "Unsupported tag size for data type" << (bigEndian ? "BE_UINT" : "UINT"); break;
    }
    return bitSize == 0 ? number : getUintFromBits(number, startBit, bitSize);
}

QVariant Tag::decodedSigned(const QByteArray& bytes, bool bigEndian, const QVariant& current) const
{
    if (bitSize != 0) {
        return getIntFromBits(bytes, startBit, bitSize, bigEndian);
    }
    const QByteArray field = exactly(bytes, byteSize);
    switch (byteSize) {
    case 4: return toInt32(field, bigEndian);
    case 2: return static_cast<int>(toInt16(field, bigEndian));
    case 1: return static_cast<int>(toInt8(field));
    default: break;
    }
    qWarning() << "Unsupported tag size for data type" << (bigEndian ? "BE_INT" : "INT");
    return current;
}

QVariant Tag::decodedReal(const QByteArray& bytes, bool bigEndian, const QVariant& current) const
{
    const QByteArray field = exactly(bytes, byteSize);
    switch (byteSize) {
    case 8: return toDouble(field, bigEndian);
    case 4: return toFloat(field, bigEndian);
    default: break;
    }
    qWarning() << "Unsupported tag size for data type" << (bigEndian ? "BE_REAL" : "REAL");
    return current;
}

/// A boolean is one bit, `startBit`; `bitSize` plays no part. The two warnings differ in wording: operators search
/// for them as they are.
QVariant Tag::decodedBoolean(const QByteArray& bytes, bool bigEndian, const QVariant& current) const
{
    switch (byteSize) {
    case 1:
    case 2:
    case 4: return getBitValue(exactly(bytes, byteSize), startBit, bigEndian);
    default: break;
    }
    qWarning() << (bigEndian ? "Unsupported size for data type TDBT_BE_BOOLEAN"
                             : "Unsupported tag size for data type TDBT_BOOLEAN");
    return current;
}
