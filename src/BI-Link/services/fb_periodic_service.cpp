#include "fb_periodic_service.h"

#include "myassertfunc.h"

namespace {

constexpr char SourceUnit[] = "src/BI-Link/services/fb_periodic_service";

enum FatalLine : unsigned int {
    DataTooLong = 27,
    DataTooShort = 28,
};

constexpr int MinDataSize = 5;
constexpr int MaxDataSize = 204;

} // namespace

FbPeriodicService::FbPeriodicService(QObject* parent, quint8 id, Configuration* configuration, TagDatabase* tagDatabase,
                                     RGPCom* rgpCom)
    : ServiceBase(parent, static_cast<signed char>(id))
{
    Q_UNUSED(configuration)
    Q_UNUSED(tagDatabase)
    Q_UNUSED(rgpCom)
}

void FbPeriodicService::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(fromLink)
    Q_UNUSED(messageClass)
    if (data.size() > MaxDataSize) {
        myAssertFunc(SourceUnit, DataTooLong);
    }
    if (data.size() < MinDataSize) {
        myAssertFunc(SourceUnit, DataTooShort);
    }
    emit sendToRGP(data);
}
