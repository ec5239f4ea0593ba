#pragma once

#include "frame_layer.h"
#include "message_layer.h"
#include "transport_layer.h"

/// The base controller's acknowledgement of one of our frames. Whoever uses it links tessaro_transport.
inline QByteArray acknowledgementOf(const QByteArray& frame)
{
    const QByteArray packet = FrameLayer().remove(frame);
    QByteArray acknowledgement = TransportLayer::addHeader(
        QByteArray(), MSG_CLASS_ACK, TransportLayer::getServiceId(packet), TransportLayer::getPacketNumber(packet));
    MessageLayer().add(acknowledgement);
    return FrameLayer().add(acknowledgement);
}
