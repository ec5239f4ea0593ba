#pragma once

#include <QByteArray>

/// A pseudo terminal whose near end stands in for the base unit's UART and whose far end the test plays.
class PseudoTerminal
{
public:
    PseudoTerminal();
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    /// The near end, relative to "/dev/", for instance "pts/3"; empty if the system gave no pseudo terminal.
    QByteArray portName() const { return m_portName; }

    /// Everything that the near end has written since the last `clear`, without waiting for more.
    QByteArray received();
    void clear();
    /// The same as soon as there are so many bytes, for which it waits without the event loop: a worker of the kernel
    /// carries them, late on a busy machine.
    QByteArray receive(int size);

    /// Sends to the near end as the far side of the line would. @return whether the terminal took all bytes.
    bool send(const QByteArray& data);

    /// Takes the far end away, as a vanished device would.
    void hangUp();

private:
    int m_farEnd = -1;
    QByteArray m_portName;
    QByteArray m_received;
};
