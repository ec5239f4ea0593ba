#include "rgpcom.h"

RGPCom::RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent)
    : QObject(parent)
    , m_tagDatabase(tagDatabase)
    , m_config(config)
{}

void RGPCom::receiveFromService(QByteArray data)
{
    data.remove(0, 2);
    data.append(2, '\0');
    emit sendToEGLink(data);
}

void RGPCom::initialize(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback)
{
    Q_UNUSED(gFallback)
    Q_UNUSED(cFallback)
}

void RGPCom::sendCmd(const QByteArray& data)
{
    Q_UNUSED(data)
}

void RGPCom::receivePeriodicFromECLink(QByteArray data)
{
    Q_UNUSED(data)
}

void RGPCom::receivePeriodicFromEGLink(QByteArray data)
{
    Q_UNUSED(data)
}

void RGPCom::configChanged() {}
