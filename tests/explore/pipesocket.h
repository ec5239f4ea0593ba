#pragma once

#include <QTcpSocket>

#include <functional>
#include <utility>

/// A connected socket without a network: what is written goes to a function, and what arrives is put in by hand.
class PipeSocket : public QTcpSocket
{
public:
    PipeSocket(std::function<void(const QByteArray&)> written, QObject* parent)
        : QTcpSocket(parent)
        , m_written(std::move(written))
    {}

    /// The peer has sent these bytes.
    void arrive(const QByteArray& data)
    {
        if (state() == ConnectedState) {
            m_arrived += data;
            emit readyRead();
        }
    }
    /// The connection is over, whoever ended it.
    void end()
    {
        if (state() == ConnectedState) {
            setSocketState(UnconnectedState);
            emit disconnected();
        }
    }

    bool setSocketDescriptor(qintptr, SocketState socketState, OpenMode mode) override
    {
        setSocketState(socketState);
        setOpenMode(mode | Unbuffered);
        return true;
    }
    void setSocketOption(SocketOption, const QVariant&) override {}
    void disconnectFromHost() override { end(); }
    void close() override
    {
        end();
        QIODevice::close();
    }
    qint64 bytesAvailable() const override { return m_arrived.size(); }
    qint64 bytesToWrite() const override { return 0; }

protected:
    qint64 readData(char* data, qint64 maxSize) override
    {
        const auto count = static_cast<int>(qMin<qint64>(maxSize, m_arrived.size()));
        std::copy_n(m_arrived.constData(), count, data);
        m_arrived.remove(0, count);
        return count;
    }
    qint64 writeData(const char* data, qint64 size) override
    {
        m_written(QByteArray(data, static_cast<int>(size)));
        return size;
    }

private:
    std::function<void(const QByteArray&)> m_written;
    QByteArray m_arrived;
};
