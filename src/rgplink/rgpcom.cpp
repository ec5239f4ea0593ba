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
