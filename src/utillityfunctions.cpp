#include "utillityfunctions.h"

#include "myassertfunc.h"

#include <QDebug>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr char SourceUnit[] = "src/utillityfunctions";

enum FatalLine : unsigned int {
    Int8NotOneByte = 158,
    Uint8NotOneByte = 165,
    BitValueTooManyBytes = 230,
    BitValueNoBytes = 231,
    BitValueBitOutOfRange = 232,
    BitFieldStartOutOfRange = 259,
    BitFieldTooWide = 260,
    BitFieldPastTheEnd = 261,
    BitFieldTooManyBytes = 262,
};

constexpr int WordBytes = 4;
constexpr unsigned int WordBits = 32;

void require(bool holds, FatalLine line)
{
    if (!holds) {
        myAssertFunc(SourceUnit, line);
    }
}

/// Folds the first sizeof(Word) bytes into a word of the given byte order.
template<typename Word>
Word fold(const QByteArray& data, bool bigEndian)
{
    constexpr int size = sizeof(Word);
    Word word = 0;
    for (int i = 0; i < size; ++i) {
        const int index = bigEndian ? i : size - 1 - i;
        word = static_cast<Word>((static_cast<std::uint64_t>(word) << 8) | static_cast<std::uint8_t>(data.at(index)));
    }
    return word;
}

template<typename Number, typename Bits>
Number numberFromBits(Bits bits)
{
    static_assert(sizeof(Number) == sizeof(Bits), "a bit pattern is reinterpreted, not converted");
    Number number;
    std::memcpy(&number, &bits, sizeof(number));
    return number;
}

void appendLittleEndian(QByteArray& data, std::uint32_t value, int size)
{
    for (int i = 0; i < size; ++i) {
        data.append(static_cast<char>(value >> (8 * i)));
    }
}

} // namespace

void appendUint16(QByteArray& data, unsigned short value)
{
    appendLittleEndian(data, value, 2);
}

void appendInt16(QByteArray& data, short value)
{
    appendUint16(data, static_cast<unsigned short>(value));
}

void appendUint32(QByteArray& data, unsigned int value)
{
    appendLittleEndian(data, value, 4);
}

void appendInt32(QByteArray& data, int value)
{
    appendUint32(data, static_cast<unsigned int>(value));
}

unsigned short toUint16(const QByteArray& data, bool bigEndian)
{
    return fold<std::uint16_t>(data, bigEndian);
}

short toInt16(const QByteArray& data, bool bigEndian)
{
    return static_cast<short>(toUint16(data, bigEndian));
}

unsigned int toUint32(const QByteArray& data, bool bigEndian)
{
    return fold<std::uint32_t>(data, bigEndian);
}

int toInt32(const QByteArray& data, bool bigEndian)
{
    return static_cast<int>(toUint32(data, bigEndian));
}

float toFloat(const QByteArray& data, bool bigEndian)
{
    return numberFromBits<float>(fold<std::uint32_t>(data, bigEndian));
}

double toDouble(const QByteArray& data, bool bigEndian)
{
    return numberFromBits<double>(fold<std::uint64_t>(data, bigEndian));
}

signed char toInt8(const QByteArray& data)
{
    require(data.size() == 1, Int8NotOneByte);
    return static_cast<signed char>(data.at(0));
}

unsigned char toUint8(const QByteArray& data)
{
    require(data.size() == 1, Uint8NotOneByte);
    return static_cast<unsigned char>(data.at(0));
}

unsigned char toUnsignedChar(const QByteArray& data)
{
    return static_cast<unsigned char>(data.at(0));
}

unsigned char toChar(const QByteArray& data)
{
    return toUnsignedChar(data);
}

QByteArray reverseQBytearray(const QByteArray& data)
{
    QByteArray reversed = data;
    std::reverse(reversed.begin(), reversed.end());
    return reversed;
}

bool getBitValue(const QByteArray& data, unsigned int bitNumber, bool bigEndian)
{
    qDebug() << "getBitValue"
             << " data: " << data << " bitNumber " << bitNumber << " BE " << (bigEndian ? "true" : "false");
    require(data.size() <= WordBytes, BitValueTooManyBytes);
    require(!data.isEmpty(), BitValueNoBytes);
    require(bitNumber < 8U * static_cast<unsigned int>(data.size()), BitValueBitOutOfRange);

    const int byteOfBit = static_cast<int>(bitNumber / 8);
    const int index = bigEndian ? data.size() - 1 - byteOfBit : byteOfBit;
    return ((static_cast<std::uint8_t>(data.at(index)) >> (bitNumber % 8)) & 1U) != 0;
}

unsigned int getUintFromBits(unsigned int value, unsigned int startBit, unsigned int bitCount)
{
    const unsigned int shifted = startBit < WordBits ? value >> startBit : 0U;
    const unsigned int mask = bitCount < WordBits ? ~(~0U << bitCount) : ~0U;
    return shifted & mask;
}

int getIntFromBits(QByteArray data, unsigned int startBit, unsigned int bitCount, bool bigEndian)
{
    const unsigned int totalBits = 8U * static_cast<unsigned int>(data.size());
    require(startBit < totalBits, BitFieldStartOutOfRange);
    require(bitCount <= totalBits, BitFieldTooWide);
    require(startBit + bitCount <= totalBits, BitFieldPastTheEnd);
    require(data.size() <= WordBytes, BitFieldTooManyBytes);
    if (bitCount == 0) {
        return 0;
    }

    std::uint32_t word = 0;
    for (int i = 0; i < data.size(); ++i) {
        const int index = bigEndian ? data.size() - 1 - i : i;
        word |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(data.at(index))) << (8 * i);
    }
    // The field's top bit goes to bit 31, so that the arithmetic shift back extends its sign.
    const auto topAligned = static_cast<std::int32_t>(word << (WordBits - startBit - bitCount));
    return topAligned >> (WordBits - bitCount);
}
