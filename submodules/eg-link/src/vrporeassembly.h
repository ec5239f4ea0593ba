#pragma once

#include <QByteArray>
#include <QVector>

#include <optional>

/// Puts the numbered sub-packets of the controller's periodic data together again. No I/O; not thread-safe.
///
/// All sub-packets of one set carry the same packet serial; they may arrive in any order. Faults are told in one debug
/// line each and cost at most the incomplete set.
///
/// A set of 1000 bytes has three sub-packets:
///
///     index 0: bytes 0 to 490     index 1: bytes 491 to 981     index 2: bytes 982 to 999
///
/// | arrives                        | leads to                                                     |
/// |--------------------------------|--------------------------------------------------------------|
/// | the last one that is missing   | the whole set; the next sub-packet begins a new one          |
/// | another serial, older or newer | what has been gathered is dropped; this one begins a new set |
/// | an index once more             | ignored: the first one stands                                |
/// | an index beyond the set        | ignored, but for its serial                                  |
/// | one without an index           | ignored, its serial too                                      |
///
/// Sets that overlap on the way therefore drop each other; there is no waiting for stragglers.
class VrpoReassembly
{
public:
    /// @param vrpoByteCount size of a whole set in bytes; it fixes the number of sub-packets and nothing else. With 0
    ///        no index is in range, so no set ever completes. More than 255 sub-packets (125,205 bytes) cannot be told
    ///        apart by an index of one byte: the set then counts as complete with the first 255.
    explicit VrpoReassembly(quint32 vrpoByteCount);

    /// Takes one sub-packet: | index 1 | data |.
    /// @return the data of the whole set, in the order of the indices, when this sub-packet completes it. How much data
    ///         each one has is not checked, so the set may be shorter or longer than was said at the start.
    std::optional<QByteArray> add(quint16 serial, const QByteArray& payload);

    /// Forgets the incomplete set and its serial.
    void reset();

    /// Sub-packets of a whole set.
    quint8 totalCount() const { return m_vrpoPartialPayloadTotalCount; }

private:
    struct Slot
    {
        bool received = false; ///< a flag of its own: a sub-packet without data is a sub-packet, too
        QByteArray data;       ///< without the index
    };

    void takeSerial(quint16 serial);
    bool store(const QByteArray& payload);
    QByteArray takeSet();
    void clearSlots();

    quint8 m_vrpoPartialPayloadTotalCount;
    QVector<Slot> m_vrpoPartialPayload;           ///< by index
    quint8 m_vrpoPartialPayloadReceivedCount = 0; ///< slots that are filled
    quint16 m_currentVRPOSerial = 0;              ///< of the sub-packet that came last
};
