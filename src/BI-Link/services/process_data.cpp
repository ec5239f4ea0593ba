#include "process_data.h"

#include "tagdatabase.h"
#include "utillityfunctions.h"

#include <QDebug>
#include <QTimer>

namespace {

constexpr char IdentityTag[] = "bu_identity";
constexpr char RemoteUnitsTag[] = "total_rus";
constexpr char EgLinkStatusTag[] = "eglink_status";

constexpr int StatusRecordSize = 2 + 1 + 1;
static_assert(StatusRecordSize == 4, "the base controller expects a record of four bytes");

} // namespace

ProcessData::ProcessData(QObject* parent, quint8 id, TagDatabase* tags)
    : ServiceBase(parent, static_cast<signed char>(id))
    , tagDatabase(tags)
{
    if (tagDatabase == nullptr) {
        return;
    }
    connect(this, &ProcessData::newProcessData, tagDatabase, &TagDatabase::processProsessData);
    warnAboutMissingTags();
    sendDataTimer = new QTimer(this);
    // A silent base controller is noticed at this packet at the latest: a coarse timer would be 25 ms late.
    sendDataTimer->setTimerType(Qt::PreciseTimer);
    connect(sendDataTimer, &QTimer::timeout, this, &ProcessData::storeAndSendProcessData);
    sendDataTimer->start(storeAndSendIntervalMs);
}

void ProcessData::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(fromLink)
    Q_UNUSED(messageClass)
    emit newProcessData(data);
    emit sendProcessDataToRgp(data);
}

void ProcessData::storeAndSendProcessData()
{
    if (tagDatabase == nullptr) {
        return;
    }
    QByteArray record;
    record.reserve(StatusRecordSize);
    appendUint16(record, static_cast<unsigned short>(valueOf(IdentityTag)));
    record.append(static_cast<char>(valueOf(RemoteUnitsTag)));
    record.append(static_cast<char>(valueOf(EgLinkStatusTag)));
    emit readyReadFromService(record, Internal, serviceId, MSG_CLASS_TRANSP_ACK);
}

void ProcessData::warnAboutMissingTags() const
{
    for (const char* name : {IdentityTag, RemoteUnitsTag, EgLinkStatusTag}) {
        if (tagDatabase->get(QString::fromLatin1(name)) == nullptr) {
            qWarning() << "Process data: no tag" << name << "- sent as 0";
        }
    }
}

unsigned int ProcessData::valueOf(const char* tagName) const
{
    const Tag* const tag = tagDatabase->get(QString::fromLatin1(tagName));
    return tag == nullptr ? 0U : tag->getValue().toUInt();
}
