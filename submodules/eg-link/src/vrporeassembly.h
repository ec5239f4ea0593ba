#pragma once

#include <QByteArray>
#include <QVector>

#include <optional>

/// Puts the numbered sub-packets of the controller's periodic data together again. No I/O; not thread-safe.
///
/// All sub-packets of one set carry the same packet serial; they may arrive in any order. Faults are told in one debug
/// line each and cost at most the incomplete set.
class VrpoReassembly
{
public:
    /// @param vrpoByteCount size of a whole set in bytes; it fixes the number of sub-packets and nothing else. With 0
    ///        no index is in range, so no set ever completes.
    explicit VrpoReassembly(quint32 vrpoByteCount);

    /// Takes one sub-packet: | index 1 | data |.
    /// @return the data of the whole set, in the order of the indices, when this sub-packet completes it.
    std::optional<QByteArray> add(quint16 serial, const QByteArray& payload);

    /// Forgets the incomplete set and its serial.
    void reset();

    quint8 totalCount() const { return m_vrpoPartialPayloadTotalCount; }

private:
    struct Slot
    {
        bool received = false; ///< a flag of its own: a sub-packet without data is a sub-packet, too
        QByteArray data;
    };

    void takeSerial(quint16 serial);
    bool store(const QByteArray& payload);
    QByteArray takeSet();
    void clearSlots();

    quint8 m_vrpoPartialPayloadTotalCount;
    QVector<Slot> m_vrpoPartialPayload;
    quint8 m_vrpoPartialPayloadReceivedCount = 0;
    quint16 m_currentVRPOSerial = 0;
};
