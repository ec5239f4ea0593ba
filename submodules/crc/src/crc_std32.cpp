#include "crc_std32.h"

#include <array>
#include <cstdint>

namespace {

constexpr std::uint32_t Polynomial = 0x04C11DB7U;
constexpr std::uint32_t InitialValue = 0xFFFFFFFFU;

constexpr std::uint32_t byteSwapped(std::uint32_t word)
{
    return (word >> 24) | ((word >> 8) & 0x0000FF00U) | ((word << 8) & 0x00FF0000U) | (word << 24);
}

constexpr std::uint32_t tableEntry(std::uint32_t index)
{
    std::uint32_t value = index << 24;
    for (int bit = 0; bit < 8; ++bit) {
        value = (value & 0x80000000U) != 0 ? (value << 1) ^ Polynomial : value << 1;
    }
    return byteSwapped(value);
}

constexpr std::array<std::uint32_t, 256> makeTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        table[index] = tableEntry(index);
    }
    return table;
}

// Entries are byte-swapped and the register runs byte-swapped with them: its low byte is the one that the next data
// byte meets, so one step is one look-up, one shift and one XOR.
constexpr std::array<std::uint32_t, 256> Table = makeTable();

std::uint32_t swappedRegisterAfter(const QByteArray& data)
{
    std::uint32_t crc = InitialValue;
    for (const char byte : data) {
        crc = Table[(crc ^ static_cast<std::uint8_t>(byte)) & 0xFFU] ^ (crc >> 8);
    }
    return crc;
}

} // namespace

void CrcStd32::add(QByteArray& data)
{
    const std::uint32_t crc = swappedRegisterAfter(data);
    // The register is byte-swapped, so its low byte is the most significant byte of the CRC and goes first.
    const char bytes[Size] = {static_cast<char>(crc), static_cast<char>(crc >> 8), static_cast<char>(crc >> 16),
                              static_cast<char>(crc >> 24)};
    data.append(bytes, Size);
}

void CrcStd32::remove(QByteArray& data)
{
    if (data.size() >= Size) {
        data.chop(Size);
    }
}

bool CrcStd32::check(const QByteArray& data)
{
    return !data.isEmpty() && swappedRegisterAfter(data) == 0;
}

bool CrcStd32::checkAndRemove(QByteArray& data)
{
    const bool intact = check(data);
    remove(data);
    return intact;
}
