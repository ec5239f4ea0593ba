#pragma once

#include <QByteArray>

/// The 32-bit CRC that protects messages of the internal link, GLink and EGLink.
///
/// Polynomial 0x04C11DB7, initial value 0xFFFFFFFF, no reflection, no final XOR (catalogued as CRC-32/MPEG-2; the nine
/// ASCII digits 1 to 9 give 0x0376E6E7). On the wire the four CRC bytes follow the data, most significant byte first.
/// Stateless and re-entrant.
///
///     QByteArray frame = "123456789";
///     CrcStd32::add(frame);               // "123456789" 03 76 E6 E7
///     CrcStd32::checkAndRemove(frame);    // true; "123456789"
///
/// It finds every error that lies within 32 neighbouring bits, and of random others all but one in 2^32. It is no
/// protection against somebody who changes data on purpose.
class CrcStd32
{
public:
    /// Number of bytes that `add` appends and `remove` drops.
    static constexpr int Size = 4;

    /// Appends the CRC of `data` to it. An empty array becomes FF FF FF FF.
    static void add(QByteArray& data);

    /// Drops the last four bytes; an array shorter than that is left unchanged.
    static void remove(QByteArray& data);

    /// @return true if `data`, which ends with its CRC, is intact; false for an empty array, and for one that is
    ///         shorter than a CRC. Four bytes FF are intact data of no bytes.
    static bool check(const QByteArray& data);

    /// `check`, then `remove` whatever the result. @return what `check` said.
    static bool checkAndRemove(QByteArray& data);
};
