#include "configuration_service.h"

#include "configuration.h"
#include "myassertfunc.h"
#include "tagdatabase.h"
#include "utillityfunctions.h"

#include <QDebug>

namespace {

constexpr char SourceUnit[] = "src/BI-Link/services/configuration_service";

enum FatalLine : unsigned int {
    AnswerNotFourBytes = 45,
    ValueTooLong = 85,
};

// Request: | key | optional: remote unit |
constexpr int KeySize = 4;
constexpr int RemoteUnitOffset = KeySize;
constexpr int RemoteRequestSize = RemoteUnitOffset + 2;
static_assert(RemoteRequestSize == 6, "the base controller asks for a remote unit's setting with six bytes");

constexpr int ValueSize = 4;
constexpr char UnknownValueByte = '\xFF';

QString keyOf(const QByteArray& request)
{
    return QString::fromLatin1(request.constData(), KeySize);
}

} // namespace

ConfigurationService::ConfigurationService(QObject* parent, quint8 id, Configuration* configuration, TagDatabase* tags)
    : ServiceBase(parent, static_cast<signed char>(id))
    , myConfiguration(configuration)
    , tagDatabase(tags)
{}

void ConfigurationService::readNextBCConfig()
{
    if (readBCConfigIterator < bcConfigKeys.size()) {
        emit readyReadFromService(bcConfigKeys.at(readBCConfigIterator).toUtf8(), Internal, serviceId,
                                  MSG_CLASS_SERVICE_ACK);
    }
}

void ConfigurationService::configBGPToBc(QByteArray request)
{
    if (request.size() < KeySize) {
        return;
    }
    qDebug() << "Config BGPToBC id:" << serviceId << "key: " << keyOf(request) << "size: " << request.size();
    bool ok = false;
    const QByteArray value = requestedValue(request, &ok);
    if (value.size() > ValueSize) {
        myAssertFunc(SourceUnit, ValueTooLong);
    }
    const QByteArray answer = ok ? value.leftJustified(ValueSize, '\0') : QByteArray(ValueSize, UnknownValueByte);
    emit readyReadFromService(answer, Internal, serviceId, MSG_CLASS_ACK);
}

void ConfigurationService::configBCToBGP(QByteArray answer)
{
    if (readBCConfigIterator >= bcConfigKeys.size()) {
        return;
    }
    if (answer.size() != ValueSize) {
        myAssertFunc(SourceUnit, AnswerNotFourBytes);
    }
    Tag* const tag = tagDatabase->get(bcConfigKeys.at(readBCConfigIterator));
    if (tag != nullptr) {
        tag->setValue(answer);
    }
    ++readBCConfigIterator;
    readNextBCConfig();
}

void ConfigurationService::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(fromLink)
    if (messageClass == MSG_CLASS_ACK) {
        configBCToBGP(data);
    } else {
        configBGPToBc(data);
    }
}

void ConfigurationService::readBCConfig()
{
    qDebug() << "ConfigurationService::readBCConfig";
    bcConfigKeys = myConfiguration->getAppConfigKeysFromBC();
    readBCConfigIterator = 0;
    readNextBCConfig();
}

QByteArray ConfigurationService::requestedValue(const QByteArray& request, bool* ok) const
{
    if (request.size() != RemoteRequestSize) {
        return myConfiguration->getAppTag(keyOf(request), ok);
    }
    const unsigned short remoteUnit = toUint16(request.mid(RemoteUnitOffset), false);
    return myConfiguration->getRemoteTag(remoteUnit, keyOf(request), ok);
}
