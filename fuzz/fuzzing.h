#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/// What every fuzz target shares. A target is one function, `LLVMFuzzerTestOneInput`; it is linked either with the
/// fuzzing engine, which makes inputs up, or with the replayer, which runs the kept ones.

/// Ends the run when an invariant does not hold, so that the engine keeps the input.
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition);                     \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)

/// The input, read from the front: what is missing at its end reads as zero or as empty.
class FuzzInput
{
public:
    FuzzInput(const std::uint8_t* data, std::size_t size)
        : m_data(reinterpret_cast<const char*>(data))
        , m_size(static_cast<int>(size))
    {}

    bool isAtEnd() const { return m_position >= m_size; }

    std::uint8_t byte() { return isAtEnd() ? 0 : static_cast<std::uint8_t>(m_data[m_position++]); }

    std::uint16_t word() { return static_cast<std::uint16_t>(byte() | byte() << 8); }

    QByteArray bytes(int count)
    {
        const int available = count < m_size - m_position ? count : m_size - m_position;
        const QByteArray taken(m_data + m_position, available);
        m_position += available;
        return taken;
    }

    QByteArray rest() { return bytes(m_size); }

private:
    const char* m_data;
    int m_size;
    int m_position = 0;
};

/// CRC-32/MPEG-2 bit by bit, as a judge independent of the table under test.
inline std::uint32_t referenceCrc(const QByteArray& data)
{
    std::uint32_t crc = 0xFFFFFFFFU;
    for (const char byte : data) {
        crc ^= static_cast<std::uint32_t>(static_cast<std::uint8_t>(byte)) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000U) != 0 ? (crc << 1) ^ 0x04C11DB7U : crc << 1;
        }
    }
    return crc;
}

inline QByteArray withReferenceCrc(QByteArray data)
{
    const std::uint32_t crc = referenceCrc(data);
    for (int shift = 24; shift >= 0; shift -= 8) {
        data.append(static_cast<char>(crc >> shift));
    }
    return data;
}

/// Keeps the log of the code under test out of the way; call it once per process.
void silenceLog();

/// A file of this process with the given content, in memory where the system offers that. @return its path.
QString fileWith(const QByteArray& content);
