#include "apiserver.h"

#include "tagdatabase.h"

#include <QDebug>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkDatagram>
#include <QStringList>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <chrono>
#include <iterator>

namespace {

constexpr quint16 DefaultInPort = 6250;
constexpr quint16 DefaultOutPort = 6251;

constexpr int UsualStatusSize = 320;

/// Datagrams that are handled before other events get their turn, so that a flood of requests delays neither the pushes
/// nor the end of the thread. The socket tells again of those that wait.
constexpr int DatagramsPerTurn = 32;

/// What a local program may ask for at once, and how fast it regains that: 200 requests a second over time. Each may
/// make a packet to the base controller, and a status record waits behind all of them.
constexpr int RequestsAtOnce = 100;
constexpr std::chrono::milliseconds RegainInterval{50};
constexpr int RegainedRequests = 10;

constexpr char Topic[] = "APIServer:";

struct StatusMember
{
    QString key;
    QString tagName;
};

const StatusMember StatusMembers[] = {
    {QStringLiteral("BU_ID"), QStringLiteral("bu_identity")},
    {QStringLiteral("BU_STATE"), QStringLiteral("bu_state")},
    {QStringLiteral("TSAPs"), QStringLiteral("tsaps")},
    {QStringLiteral("UNARMED_RUs"), QStringLiteral("unarmed_rus")},
    {QStringLiteral("EG_LINK_STATUS"), QStringLiteral("eglink_stat_out")},
    {QStringLiteral("EC_LINK_STATUS"), QStringLiteral("eclink_status")},
    {QStringLiteral("C_LINK_STATUS"), QStringLiteral("clink_status")},
    {QStringLiteral("ARMED_RU"), QStringLiteral("armed_ru")},
    {QStringLiteral("RU_STATE"), QStringLiteral("ru_state")},
    {QStringLiteral("BCSR"), QStringLiteral("BCSR")},
    {QStringLiteral("BUID"), QStringLiteral("BUID")},
    {QStringLiteral("IFTY"), QStringLiteral("IFTY")},
    {QStringLiteral("IVL1"), QStringLiteral("IVL1")},
    {QStringLiteral("IVL2"), QStringLiteral("IVL2")},
    {QStringLiteral("IVL3"), QStringLiteral("IVL3")},
};

/// A word that makes a datagram a command. The first word found anywhere in the datagram decides; a command without a
/// signal asks for the status object.
struct Command
{
    const char* word;
    const char* logLine;
    void (APIServer::*signal)();
};

const Command Commands[] = {
    {"GET", "Processing GET", nullptr},
    {"RESET", "Processing RESET", &APIServer::egResetMsgReceived},
    {"DISARM", "Processing DISARM", &APIServer::ruDisarmMsgReceived},
    {"CCHANGE", "Processing CCHANGE", &APIServer::configChangeMsgReceived},
};

const Command AnythingElse{"", "Processing default", nullptr};

const Command& commandIn(const QByteArray& datagram)
{
    const auto* const found =
        std::find_if(std::begin(Commands), std::end(Commands),
                     [&datagram](const Command& command) { return datagram.contains(command.word); });
    return found != std::end(Commands) ? *found : AnythingElse;
}

/// The datagram up to its first zero byte, one character a byte.
QString loggedText(const QByteArray& datagram)
{
    return QString::fromLatin1(datagram.constData(), static_cast<int>(qstrnlen(datagram.constData(), datagram.size())));
}

/// One member as it stands in a compact JSON object.
QByteArray jsonMember(const QString& key, const QString& text)
{
    const QByteArray object = QJsonDocument(QJsonObject{{key, text}}).toJson(QJsonDocument::Compact);
    return object.mid(1, object.size() - 2);
}

} // namespace

APIServer::APIServer(TagDatabase* tagDatabase, QObject* parent)
    : APIServer(tagDatabase, DefaultInPort, DefaultOutPort, parent)
{}

APIServer::APIServer(TagDatabase* tagDatabase, quint16 inPort, quint16 outPort, QObject* parent)
    : QObject(parent)
    , IN_PORT(inPort)
    , OUT_PORT(outPort)
    , tags(tagDatabase)
    , m_allowance(RequestsAtOnce)
{
    watchStatusTags();
    prepareMembers();
}

void APIServer::watchStatusTags()
{
    QStringList missing;
    for (const StatusMember& member : StatusMembers) {
        if (const Tag* const tag = tags->get(member.tagName)) {
            connect(tag, &Tag::valueUpdated, this, &APIServer::sendData);
        } else {
            missing.append(member.tagName);
        }
    }
    if (!missing.isEmpty()) {
        qWarning() << Topic << "Missing status tags:" << missing.join(QLatin1String(", "));
    }
}

void APIServer::prepareMembers()
{
    for (const StatusMember& member : StatusMembers) {
        const QString text = textOf(member.tagName);
        m_members.push_back({member.key, member.tagName, text, jsonMember(member.key, text)});
    }
    std::sort(m_members.begin(), m_members.end(),
              [](const WrittenMember& one, const WrittenMember& other) { return one.key < other.key; });
}

QString APIServer::textOf(const QString& tagName) const
{
    const Tag* const tag = tags->get(tagName);
    return tag != nullptr ? tag->getValue().toString() : QString();
}

QByteArray APIServer::getData()
{
    QByteArray status("{");
    status.reserve(UsualStatusSize);
    for (WrittenMember& member : m_members) {
        const QString text = textOf(member.tagName);
        if (text != member.text) {
            member.text = text;
            member.json = jsonMember(member.key, text);
        }
        status.append(member.json).append(',');
    }
    status.back() = '}';
    return status;
}

void APIServer::sendNotify()
{
    send(QByteArrayLiteral("NOTIFY"));
}

void APIServer::start()
{
    qDebug() << Topic << "Starting API server";
    socket = new QUdpSocket(this);
    if (!socket->bind(QHostAddress::LocalHost, static_cast<quint16>(IN_PORT))) {
        qDebug() << Topic << "Socket could not be bound to" << IN_PORT;
        delete socket;
        socket = nullptr;
        return;
    }
    connect(socket, &QUdpSocket::readyRead, this, &APIServer::readData);
    m_regain = new QTimer(this);
    m_regain->setInterval(RegainInterval);
    connect(m_regain, &QTimer::timeout, this, &APIServer::regainAllowance);
}

void APIServer::readData()
{
    const int atMost = std::min(DatagramsPerTurn, m_allowance);
    for (int i = 0; i < atMost && socket != nullptr && socket->hasPendingDatagrams(); ++i) {
        takeAllowance();
        const QNetworkDatagram datagram = socket->receiveDatagram();
        if (datagram.isValid()) {
            handleDatagram(datagram.data());
        }
    }
}

void APIServer::takeAllowance()
{
    --m_allowance;
    if (!m_regain->isActive()) {
        m_regain->start();
    }
}

void APIServer::regainAllowance()
{
    m_allowance = std::min(m_allowance + RegainedRequests, RequestsAtOnce);
    if (m_allowance == RequestsAtOnce) {
        m_regain->stop();
    }
    readData(); // what has waited in the socket, which does not tell of it again
}

void APIServer::sendData()
{
    send(getData());
}

void APIServer::handleDatagram(const QByteArray& datagram)
{
    qDebug() << Topic << "Read UDP Data:" << loggedText(datagram);
    const Command& command = commandIn(datagram);
    qDebug() << Topic << command.logLine;
    if (command.signal == nullptr) {
        sendData();
        return;
    }
    emit(this->*command.signal)();
    sendNotify();
}

void APIServer::send(const QByteArray& datagram)
{
    if (socket == nullptr) {
        return;
    }
    socket->writeDatagram(datagram, QHostAddress::LocalHost, static_cast<quint16>(OUT_PORT));
    socket->flush();
}
