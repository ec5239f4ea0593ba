#pragma once

#include "linkunit.h"
#include "uartline.h"
#include "virtualtime.h"
#include "world.h"

#include "rgpcom.h"
#include "tag.h"
#include "tagdatabase.h"

#include <QMap>
#include <QObject>
#include <QScopedPointer>
#include <QSet>

class GfallbackServiceC;

/// The hub with its connections, both transports, both fallback services and the internal link, and around them the
/// base controller's relay and a few units. Everything goes well, and at once, but for what is chosen, here or on the
/// internal link (UartLine):
///
/// | choice          | what happens                                                                              |
/// |-----------------|-------------------------------------------------------------------------------------------|
/// | tick, long      | 500 ms pass, 2100 ms pass                                                                 |
/// | cmd, data       | the base controller sends a command, periodic data                                        |
/// | fwd U, big U    | the base controller sends unit U a service message; one of two blocks                     |
/// | fb U, deinit U  | U joins over the fallback; leaves it                                                      |
/// | tcp U, cut U    | U connects and joins over TCP; its connection breaks                                      |
/// | lose U, block U | U's next acknowledgement over the fallback is lost; the next block to it                  |
/// | hold U, free U  | U's acknowledgements stay under way; arrive                                               |
/// | stall U, flow U | the base controller does not ask for U's next block; does                                 |
/// | deaf U, hear U  | U hears nothing and says nothing; is back                                                 |
/// | up U, stop U    | U sends a command, a machine stop                                                         |
/// | reject          | the base controller rejects the fallback channel                                          |
class LinkWorld : public World
{
public:
    explicit LinkWorld(VirtualTime& time, const QList<quint16>& units);
    ~LinkWorld() override;

    QStringList choices() const override;
    void perform(const QString& choice) override;
    QByteArray state() const override;
    void finish() override;

private:
    static constexpr quint16 ArmedUnit = 21;
    static constexpr std::chrono::milliseconds Promise{2000}; ///< within which the newest status and commands are there
    static constexpr std::chrono::milliseconds Step{100};

    void setTag(const char* name, const QVariant& value);
    void awaitChecksums();
    void makeHub();

    // Choices.
    QStringList choicesFor(const LinkUnit& unit) const;
    void performGlobal(const QString& what);
    void performFor(LinkUnit& unit, const QString& what);
    void endDisturbance(LinkUnit& unit, const QString& what);
    void noteLossesOf(const QString& what);
    static bool mayCostCommands(const QString& what, const LinkUnit& unit);
    void advance(std::chrono::milliseconds time);
    void sendCommand();
    void sendForward(quint16 id, int padding);
    void endSilence();
    void connectTcp(LinkUnit& unit);
    void sendUp(LinkUnit& unit, quint8 msgId, const QByteArray& payload);

    // The base controller's relay.
    void fromBase(quint8 serviceId, const QByteArray& payload);
    void miscount(quint8 serviceId, const QByteArray& payload, int times);
    void relayStartsOver(bool isByItself);
    void blockSetsOut(const QByteArray& block);
    void blockFromBase(const QByteArray& block);
    bool wasHandedOverBeforeReject(const LinkUnit& unit) const;
    void askForNext(LinkUnit& unit);
    void frameOverFallback(LinkUnit& unit, const QByteArray& frame);

    // The units.
    void bytesOverTcp(LinkUnit& unit, const QByteArray& bytes);
    void frameToUnit(LinkUnit& unit, const QByteArray& frame, bool isTcp);
    void messageToUnit(LinkUnit& unit, quint8 msgId, const QByteArray& payload);
    void acknowledge(LinkUnit& unit, quint8 msgId, bool isTcp);
    void commandArrived(LinkUnit& unit, const QByteArray& payload);
    void forwardArrived(LinkUnit& unit, const QByteArray& payload);

    // What must hold.
    void check();
    void noteTakenLink(LinkUnit& unit);
    void noteWithdrawal(LinkUnit& unit) const;
    bool isDisturbed(const LinkUnit& unit) const;
    bool isUpToDate(const LinkUnit& unit) const;
    void checkUnit(const LinkUnit& unit);
    void checkEnd();
    bool isServed(const LinkUnit& unit) const;

    VirtualTime& m_time;
    TagDatabase m_tags;
    QScopedPointer<UartLine> m_line;
    GfallbackServiceC* m_gFallback = nullptr; ///< of that line
    QScopedPointer<RGPCom> m_hub;
    QObject m_context; ///< what is connected to it ends with this world
    QMap<quint16, LinkUnit> m_units;
    int m_turn = 0; ///< of the world: what happens in one turn, happens at once
    int m_commands = 0;
    int m_forwards = 0;
    QSet<int> m_forwardsSentTwice;
    int m_rejects = 0; ///< of the fallback channel, on their way
    int m_upCommands = 0;
    int m_upCommandsHeard = 0;
    int m_stops = 0;
    int m_stopsHeard = 0;
    int m_mark = 0;
};
