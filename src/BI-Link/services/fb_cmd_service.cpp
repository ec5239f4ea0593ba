#include "fb_cmd_service.h"

#include "configuration.h"
#include "myassertfunc.h"

namespace {

constexpr char SourceUnit[] = "src/BI-Link/services/fb_cmd_service";

enum FatalLine : unsigned int {
    ReceivedCommandTooLong = 30,
    ForwardingNotConfigured = 44,
    SentCommandTooLong = 45,
};

constexpr int CommandSize = 16;
constexpr unsigned int ForwardingMask = 0x3;

} // namespace

FbCmdService::FbCmdService(QObject* parent, quint8 id, Configuration* configuration, TagDatabase* tagDatabase,
                           RGPCom* rgpCom)
    : ServiceBase(parent, static_cast<signed char>(id))
    , myConfiguration(configuration)
{
    Q_UNUSED(tagDatabase)
    Q_UNUSED(rgpCom)
}

void FbCmdService::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(fromLink)
    Q_UNUSED(messageClass)
    if (data.size() > CommandSize) {
        myAssertFunc(SourceUnit, ReceivedCommandTooLong);
    }
    emit sendCmdToRGPCom(data);
}

void FbCmdService::sendCmd(QByteArray cmd)
{
    unsigned int forwarding = 0;
    if (!myConfiguration->getAppTag(QStringLiteral("FMAP"), &forwarding)) {
        myAssertFunc(SourceUnit, ForwardingNotConfigured);
    }
    if (cmd.size() > CommandSize) {
        myAssertFunc(SourceUnit, SentCommandTooLong);
    }
    if ((forwarding & ForwardingMask) != 0) {
        emit readyReadFromService(cmd.leftJustified(CommandSize, '\0'), Internal, serviceId, MSG_CLASS_TRANSP_ACK);
    }
}
