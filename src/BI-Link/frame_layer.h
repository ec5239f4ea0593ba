#pragma once

#include <QByteArray>
#include <QObject>

/// Turns packets into frames for the serial line and back.
///
/// | 0x82 | packet, every 0x82, 0x0A and 0x90 in it replaced by 0x90 and the byte XOR 0x80 | 0x0A |
///
/// A frame thus contains the newline only as its last byte, where the serial driver cuts the stream. Stateless; never
/// fails. Damage is found by the CRC inside (see MessageLayer), not here. In the worst case a frame is twice as long as
/// its packet, and two bytes more.
///
///     packet 44 82 05 0A    <->    frame 82 44 90 02 05 90 8A 0A
class FrameLayer : public QObject
{
    Q_OBJECT

public:
    static constexpr quint8 stx = 0x82; ///< start of frame
    static constexpr quint8 etx = 0x0A; ///< end of frame: the newline that ends a line for the serial driver
    static constexpr quint8 dle = 0x90; ///< escape introducer

    enum Action {
        ADD = 0,    ///< packet to the inside of a frame
        REMOVE = 1, ///< the reverse
    };

    explicit FrameLayer(QObject* parent = nullptr);

    /// @return the frame of one packet of any length, empty included.
    QByteArray add(QByteArray data);

    /// Takes one received line as one frame. Start and end bytes are dropped wherever they stand, so that a line
    /// without them, or with several frames in it, still gives bytes for the CRC to judge.
    /// @return the packet, CRC included.
    QByteArray remove(QByteArray data);

    /// One pass over `data`: escapes it, without start and end byte (`ADD`), or undoes that (`REMOVE`). An escape
    /// introducer that has lost its partner at the end of the data counts as one before a zero byte.
    QByteArray parseData(QByteArray data, Action action);
};
