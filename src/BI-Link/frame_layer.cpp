#include "frame_layer.h"

#include <algorithm>

namespace {

constexpr quint8 EscapeFlip = 0x80;
constexpr int Delimiters = 2; ///< start and end byte

bool mustBeEscaped(char byte)
{
    const auto value = static_cast<quint8>(byte);
    return value == FrameLayer::dle || value == FrameLayer::stx || value == FrameLayer::etx;
}

bool isDelimiter(char byte)
{
    const auto value = static_cast<quint8>(byte);
    return value == FrameLayer::stx || value == FrameLayer::etx;
}

char flipped(char byte)
{
    return static_cast<char>(static_cast<quint8>(byte) ^ EscapeFlip);
}

int stuffedSize(const QByteArray& data)
{
    return data.size() + static_cast<int>(std::count_if(data.cbegin(), data.cend(), mustBeEscaped));
}

/// Writes exactly `stuffedSize(data)` bytes to `out`; returns the position behind them.
char* stuff(const QByteArray& data, char* out)
{
    for (const char byte : data) {
        if (mustBeEscaped(byte)) {
            *out++ = static_cast<char>(FrameLayer::dle);
            *out++ = flipped(byte);
        } else {
            *out++ = byte;
        }
    }
    return out;
}

/// Writes at most `data.size()` bytes to `out`; returns the position behind them.
char* unstuff(const QByteArray& data, char* out)
{
    const char* const end = data.cend();
    for (const char* in = data.cbegin(); in != end; ++in) {
        if (isDelimiter(*in)) {
            continue;
        }
        if (static_cast<quint8>(*in) != FrameLayer::dle) {
            *out++ = *in;
        } else if (in + 1 != end) {
            *out++ = flipped(*++in);
        } else {
            *out++ = flipped('\0');
        }
    }
    return out;
}

} // namespace

FrameLayer::FrameLayer(QObject* parent)
    : QObject(parent)
{}

QByteArray FrameLayer::add(QByteArray data)
{
    QByteArray frame(stuffedSize(data) + Delimiters, Qt::Uninitialized);
    char* out = frame.data();
    *out++ = static_cast<char>(stx);
    out = stuff(data, out);
    *out = static_cast<char>(etx);
    return frame;
}

QByteArray FrameLayer::remove(QByteArray data)
{
    return parseData(data, REMOVE);
}

QByteArray FrameLayer::parseData(QByteArray data, Action action)
{
    QByteArray parsed(action == ADD ? stuffedSize(data) : data.size(), Qt::Uninitialized);
    char* const begin = parsed.data();
    const char* const end = action == ADD ? stuff(data, begin) : unstuff(data, begin);
    parsed.truncate(static_cast<int>(end - begin));
    return parsed;
}
