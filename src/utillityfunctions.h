#pragma once

#include <QByteArray>

// Byte and bit helpers that every protocol of the base unit uses. All of them are stateless and re-entrant.
//
// `bigEndian` true means that the first byte of the array is the most significant one, false that it is the least
// significant one. Appenders exist in little-endian form only: no protocol of the base unit sends big-endian integers.
//
//     appendUint16(data, 0x1234);      // 34 12 behind what `data` holds
//     toUint16(data, false);           // 0x1234 when these two bytes are the first ones
//     toUint16(data, true);            // 0x3412

/// Appenders: 2 or 4 bytes behind what is there, negative numbers in two's complement.
void appendUint16(QByteArray& data, unsigned short value);
void appendInt16(QByteArray& data, short value);
void appendUint32(QByteArray& data, unsigned int value);
void appendInt32(QByteArray& data, int value);

/// Readers of the first 2, 4 or 8 bytes; further bytes are ignored. The caller guarantees that enough bytes are there:
/// nothing is checked. Floating-point numbers are IEEE 754 bit patterns, of 4 bytes (`toFloat`) or 8 (`toDouble`), and
/// come out as they are, NaN and infinities included.
unsigned short toUint16(const QByteArray& data, bool bigEndian);
short toInt16(const QByteArray& data, bool bigEndian);
unsigned int toUint32(const QByteArray& data, bool bigEndian);
int toInt32(const QByteArray& data, bool bigEndian);
float toFloat(const QByteArray& data, bool bigEndian);
double toDouble(const QByteArray& data, bool bigEndian);

/// The only byte of a one-byte array; any other size is a fatal assertion.
signed char toInt8(const QByteArray& data);
unsigned char toUint8(const QByteArray& data);

/// Byte 0 of an array that has at least one byte. `toChar` is unsigned too, whatever its name says.
unsigned char toUnsignedChar(const QByteArray& data);
unsigned char toChar(const QByteArray& data);

/// A copy with the last byte first.
QByteArray reverseQBytearray(const QByteArray& data);

/// Bit `bitNumber` of a number of 1 to 4 bytes; bit 0 is the least significant bit of the least significant byte. An
/// array of another size, or a bit outside it, is a fatal assertion. Each call writes a debug line.
bool getBitValue(const QByteArray& data, unsigned int bitNumber, bool bigEndian);

/// The `bitCount` bits of `value` from `startBit` up. A `startBit` of 32 or more gives 0, a `bitCount` of 32 or more
/// keeps all bits.
///
///     getUintFromBits(0xB4, 2, 3);     // 1011 0100: 5
unsigned int getUintFromBits(unsigned int value, unsigned int startBit, unsigned int bitCount);

/// The same field of a number of 1 to 4 bytes, read as a two's-complement number of `bitCount` bits. A field that does
/// not lie inside the array is a fatal assertion; a `bitCount` of 0 gives 0.
///
///     getIntFromBits(QByteArray("\xB4"), 2, 3, false);     // 101 as a signed number: -3
int getIntFromBits(QByteArray data, unsigned int startBit, unsigned int bitCount, bool bigEndian);
