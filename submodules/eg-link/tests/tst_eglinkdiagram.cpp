#include "statemachine.h"

#include <QFile>
#include <QtTest>

namespace {

QString nameOf(EGLinkState state)
{
    switch (state) {
    case NOT_CONFIGURED: return "NOT_CONFIGURED";
    case OPERATIONAL: return "OPERATIONAL";
    case LINK_ERROR: return "LINK_ERROR";
    case LINK_ERROR_INITIAL: return "LINK_ERROR_INITIAL";
    default: return QStringLiteral("state %1").arg(state);
    }
}

QString nameOf(EGLinkEvent event)
{
    switch (event) {
    case CONFIGURE: return "CONFIGURE";
    case PERIODIC_DATA: return "PERIODIC_DATA";
    case CMD_ACK_FAILURE: return "CMD_ACK_FAILURE";
    case NO_PERIODIC_DATA: return "NO_PERIODIC_DATA";
    case DISABLE: return "DISABLE";
    case TIMER_EXPIRED: return "TIMER_EXPIRED";
    case CONFIGURE_NO_VRPO: return "CONFIGURE_NO_VRPO";
    default: return QStringLiteral("event %1").arg(event);
    }
}

QString lineOf(const Transition& row)
{
    QString line =
        QStringLiteral("    %1 --> %2: %3").arg(nameOf(row.currentState), nameOf(row.newState), nameOf(row.event));
    if (row.newState != row.currentState && row.reportedNewState != row.newState) {
        line += QStringLiteral(" (reported as %1)").arg(nameOf(row.reportedNewState));
    }
    if (row.automaticTransitionTimeMs != 0) {
        line += QStringLiteral(", timer %1 ms").arg(row.automaticTransitionTimeMs);
    }
    return line + '\n';
}

/// The table as a diagram, a line for each of its rows.
QString diagram()
{
    const QVector<Transition> table = egLinkTransitionTable();
    QString text =
        QStringLiteral("```mermaid\nstateDiagram-v2\n    [*] --> %1\n").arg(nameOf(table.first().currentState));
    for (const Transition& row : table) {
        text += lineOf(row);
    }
    return text + "```\n";
}

} // namespace

/// The diagram in the protocol's page is drawn from the table.
class TestEGLinkDiagram : public QObject
{
    Q_OBJECT

private slots:
    void pageShowsTheTable();
};

void TestEGLinkDiagram::pageShowsTheTable()
{
    QFile page(EGLINK_PAGE);
    QVERIFY2(page.open(QIODevice::ReadOnly), EGLINK_PAGE);
    const QString expected = diagram();
    QVERIFY2(QString::fromUtf8(page.readAll()).contains(expected),
             qPrintable("docs/protocols/eglink.md does not show this diagram of the table:\n\n" + expected));
}

QTEST_GUILESS_MAIN(TestEGLinkDiagram)
#include "tst_eglinkdiagram.moc"
