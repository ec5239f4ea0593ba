#pragma once

#include "logspy.h"
#include "pairinginstallation.h"
#include "servicetool.h"

#include <QCryptographicHash>
#include <QTest>

#include <memory>

/// A pairing service on a scratch installation, with one service tool connected to it. Each test function gets its own.
class PairServerFixture
{
protected:
    void setUp()
    {
        m_log = std::make_unique<LogSpy>();
        m_unit = std::make_unique<PairingInstallation>();
        m_server = m_unit->newServer();
        m_tool = connectTool();
    }
    void tearDown()
    {
        m_tool.reset();
        m_server.reset();
        m_unit.reset();
        m_log.reset();
    }

    /// Fails the test when the condition does not come true; the caller goes on all the same.
    template<typename Condition>
    static void waitFor(Condition condition)
    {
        QVERIFY(QTest::qWaitFor(condition, PatienceMs));
    }
    std::unique_ptr<ToolConnection> connectTool()
    {
        const QString accepted = QStringLiteral("pairserver: newClientConnection()");
        const int before = m_log->count(accepted);
        auto tool = std::make_unique<ToolConnection>(m_server->requestPort());
        waitFor([&] { return tool->isUp() && m_log->count(accepted) == before + 1; });
        return tool;
    }
    std::unique_ptr<ToolConnection> connectReceiver()
    {
        const auto accepted = [this] {
            return linesWith("Got connection from");
        };
        const int before = accepted();
        auto receiver = std::make_unique<ToolConnection>(m_server->fileTransferPort());
        waitFor([&] { return receiver->isUp() && accepted() == before + 1; });
        return receiver;
    }
    /// Asks for an application and waits for its metadata.
    Offer getApp(quint16 ruId, const char* name)
    {
        m_tool->forget();
        m_tool->send(getAppRequest(ruId, m_unit->path(name)));
        waitFor([this] { return Offer::from(m_tool->received()).whole; });
        return Offer::from(m_tool->received());
    }
    int linesWith(const char* text) const { return m_log->lines().filter(QString::fromLatin1(text)).size(); }
    /// Connections that the server holds, of both kinds.
    int openConnections() const { return m_server->findChildren<QTcpSocket*>().size(); }

    static bool isList(const QByteArray& bytes) { return bytes.startsWith(wireText(QStringLiteral("appList"))); }
    static QString md5(const QByteArray& bytes)
    {
        return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
    }
    static QString quoted(const QString& text) { return QLatin1Char('"') + text + QLatin1Char('"'); }

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<PairingInstallation> m_unit;
    std::unique_ptr<PairServer> m_server;
    std::unique_ptr<ToolConnection> m_tool;
};
