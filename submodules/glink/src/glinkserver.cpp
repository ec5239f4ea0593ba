#include "glinkserver.h"

#include "rgpcom.h"
#include "threads.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QGlobalStatic>
#include <QThread>
#include <QTimer>

#include <algorithm>

#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr char ListenAddress[] = "192.168.32.1";

/// More threads than any installation has units, and few enough for a 32-bit address space.
constexpr int MaxConnections = 1024;

constexpr int DescriptorsPerConnection = 3; ///< socket, event loop, and one to spare
constexpr int ReservedDescriptors = 128;    ///< for all other parts of the server

constexpr auto AcceptPause = 100ms;

Q_GLOBAL_STATIC(QHostAddress, s_listenAddressForTests)

/// The number of connections for which descriptors suffice, after asking for more of them.
int affordableConnections()
{
    rlimit descriptors = {};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) {
        return MaxConnections;
    }
    constexpr rlim_t wanted = ReservedDescriptors + DescriptorsPerConnection * MaxConnections;
    if (descriptors.rlim_cur < wanted) {
        const rlimit raised{std::min(wanted, descriptors.rlim_max), descriptors.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            descriptors = raised;
        }
    }
    const auto usable = static_cast<qint64>(std::min(descriptors.rlim_cur, wanted)) - ReservedDescriptors;
    return static_cast<int>(std::max<qint64>(1, usable / DescriptorsPerConnection));
}

} // namespace

GLinkServer::GLinkServer(RGPCom* rgpCom, quint16 port, Configuration* configuration, TagDatabase* tagDatabase,
                         QObject* parent)
    : QTcpServer(parent)
    , m_rgpCom(rgpCom)
    , m_serverPort(port)
    , m_configuration(configuration)
    , m_tagDatabase(tagDatabase)
    , m_connectionLimit(MaxConnections)
{
    connect(this, &QTcpServer::acceptError, this, &GLinkServer::resumeAcceptingSoon);
}

GLinkServer::~GLinkServer()
{
    closeConnections();
    const QList<QThread*> threads = m_connections.keys();
    for (QThread* const thread : threads) {
        if (thread->isFinished()) {
            delete m_connections.take(thread);
            delete thread;
        }
    }
}

void GLinkServer::setListenAddress(const QHostAddress& address)
{
    *s_listenAddressForTests = address;
}

void GLinkServer::startServer()
{
    m_connectionLimit = affordableConnections();
    const QHostAddress address =
        s_listenAddressForTests->isNull() ? QHostAddress(QString::fromLatin1(ListenAddress)) : *s_listenAddressForTests;
    if (!listen(address, m_serverPort)) {
        qFatal("Could not start GLinkServer");
    }
    qDebug() << "GLinkServer listening to address " << serverAddress().toString() << " port " << serverPort();
}

// --- Connections ----------------------------------------------------------------------------------------------------

void GLinkServer::incomingConnection(qintptr socketDescriptor)
{
    if (!hasRoom()) {
        refuse(socketDescriptor);
        return;
    }
    auto* const transport = new GLinkTransportTcp(socketDescriptor, 0, m_configuration, m_tagDatabase, nullptr);
    auto* const thread = Threads::make("glink-tcp");
    transport->setTimes(m_times);
    transport->setFreedWithItsThread();
    transport->moveToThread(thread);
    wire(transport, thread);
    m_connections.insert(thread, transport);

    thread->start(QThread::InheritPriority);
    if (!thread->isRunning() && !thread->isFinished()) {
        // The system has no thread for us, and run() will not take the descriptor over.
        connectionThreadFinished(thread);
        refuse(socketDescriptor);
    }
}

void GLinkServer::wire(GLinkTransportTcp* transport, QThread* thread)
{
    // Into the connection's thread.
    connect(thread, &QThread::started, transport, [] { Threads::claimPriority(Threads::Role::UnitLink); });
    connect(thread, &QThread::started, transport, &GLinkTransportTcp::run);
    // Direct: nobody can post to what does not exist any more.
    connect(transport, &QObject::destroyed, thread, &QThread::quit, Qt::DirectConnection);

    // Into the main thread, in the order in which they were emitted.
    connect(transport, &GLinkTransportTcp::newConnection, m_rgpCom, &RGPCom::addGLink);
    connect(transport, &GLinkTransportBase::closedConnection, m_rgpCom, &RGPCom::removeGLink);
    connect(transport, &GLinkTransportBase::readyReadFromGLink, m_rgpCom, &RGPCom::dataFromGLink);
    connect(transport, &GLinkTransportBase::messageSent, m_rgpCom, &RGPCom::messageSent);
    // Behind closedConnection, with which the hub lets go of the transport: until then it may post to it, and a post
    // wakes the event loop of a thread that must still have one.
    connect(transport, &GLinkTransportTcp::finished, this, [thread] { thread->quit(); });

    // Behind the hub's connection to the same signal: counts what the hub has handled.
    const auto backlog = std::make_shared<GLinkBacklog>(0);
    transport->setBacklog(backlog);
    connect(transport, &GLinkTransportBase::readyReadFromGLink, this, [backlog] { --*backlog; });
    connect(thread, &QThread::finished, this, [this, thread] { connectionThreadFinished(thread); });
}

void GLinkServer::connectionThreadFinished(QThread* thread)
{
    thread->wait(); // it is in its last steps
    delete m_connections.take(thread);
    thread->deleteLater();
}

void GLinkServer::closeConnections()
{
    close();
    const QList<QThread*> threads = m_connections.keys();
    for (QThread* const thread : threads) {
        thread->requestInterruption();
        thread->quit();
    }
    const QDeadlineTimer deadline(ShutdownTime);
    for (QThread* const thread : threads) {
        if (!thread->wait(deadline)) {
            qWarning() << "GLinkServer: the thread of a connection did not end in time.";
        }
    }
}

// --- Limits ---------------------------------------------------------------------------------------------------------

bool GLinkServer::hasRoom()
{
    const bool hasRoom = m_connections.size() < m_connectionLimit;
    if (!hasRoom && !m_isFull) {
        qWarning() << "GLinkServer:" << m_connections.size() << "connections, refusing more.";
    }
    m_isFull = !hasRoom;
    return hasRoom;
}

void GLinkServer::refuse(qintptr socketDescriptor)
{
    ::close(static_cast<int>(socketDescriptor));
}

void GLinkServer::resumeAcceptingSoon()
{
    // Qt stops accepting for good after an error such as "too many open files".
    QTimer::singleShot(AcceptPause, this, &QTcpServer::resumeAccepting);
}
