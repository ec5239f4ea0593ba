#include "cfallback_service_c.h"

#include "myassertfunc.h"
#include "utillityfunctions.h"

#include <QDebug>

namespace {

constexpr char SourceUnit[] = "src/BI-Link/services/cfallback_service_c";

enum FatalLine : unsigned int {
    PacketWithoutId = 63,
    PacketFromOtherLink = 73,
    PacketOfOtherClass = 78,
};

constexpr int IdSize = 2;

} // namespace

CFallbackServiceC::CFallbackServiceC(QObject* parent, serviceId_T id)
    : ServiceBase(parent, static_cast<signed char>(id))
{}

void CFallbackServiceC::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    if (data.size() < IdSize) {
        myAssertFunc(SourceUnit, PacketWithoutId);
    }
    if (fromLink != Internal) {
        qDebug() << "Unexpected fromLink: not Internal!";
        myAssertFunc(SourceUnit, PacketFromOtherLink);
    }
    if (messageClass != MSG_CLASS_TRANSP_ACK) {
        qDebug() << "Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!";
        myAssertFunc(SourceUnit, PacketOfOtherClass);
    }
    emit cFallbackTx(data.mid(IdSize), toUint16(data, false));
}

void CFallbackServiceC::CFallbackRx(QByteArray data, unsigned short id)
{
    QByteArray packet;
    packet.reserve(IdSize + data.size());
    appendUint16(packet, id);
    packet.append(data);
    emit readyReadFromService(packet, Internal, serviceId, MSG_CLASS_TRANSP_ACK);
}
