#pragma once

#include <QByteArray>
#include <QObject>

/// Protects packets of the internal link with a CRC-32: the four bytes that CrcStd32 appends, most significant first,
/// computed over the whole packet. Stateless.
///
/// Between transport layer and frame layer; the CRC is computed before bytes are escaped and checked after that is
/// undone:
///
///     | header 2 | payload |  --add-->  | header 2 | payload | CRC 4 |
///     the same               <--check, then remove--
///
///     "123456789"            --add-->  "123456789" 03 76 E6 E7
class MessageLayer : public QObject
{
    Q_OBJECT

public:
    explicit MessageLayer(QObject* parent = nullptr);

    /// Appends the CRC in place.
    void add(QByteArray& data);

    /// Drops the CRC in place, unchecked. Data shorter than a CRC is left as it is.
    void remove(QByteArray& data);

    /// @return true if `data`, which ends with its CRC, is intact; false for empty data, and for less than a CRC.
    bool check(QByteArray data);
};
