#include "tessaroserver.h"

#include <QDebug>

TessaroServer::TessaroServer(QObject* parent)
    : QObject(parent)
{
    qInfo() << "Starting TZ-400 Tessaro Server [ build of " << __DATE__ << " " << __TIME__ << "]";
}
