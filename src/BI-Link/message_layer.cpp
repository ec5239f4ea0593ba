#include "message_layer.h"

#include "crc_std32.h"

MessageLayer::MessageLayer(QObject* parent)
    : QObject(parent)
{}

void MessageLayer::add(QByteArray& data)
{
    CrcStd32::add(data);
}

void MessageLayer::remove(QByteArray& data)
{
    CrcStd32::remove(data);
}

bool MessageLayer::check(QByteArray data)
{
    return CrcStd32::check(data);
}
