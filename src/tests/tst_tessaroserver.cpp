#include "fatalprobe.h"
#include "tagdatabase.h"
#include "tessaroserver.h"

#include <QtTest>

namespace {

struct Row
{
    Tag::HostLinkType link;
    quint16 startByte;
    quint16 byteSize;
};

void addTags(TagDatabase& tags, const QList<Row>& rows)
{
    for (const Row& row : rows) {
        auto* const tag = new Tag(QStringLiteral("tag%1").arg(tags.size()), &tags);
        tag->setHostLink(row.link);
        tag->setStartByte(row.startByte);
        tag->setByteSize(row.byteSize);
        tags.append(tag);
    }
}

} // namespace

Q_DECLARE_METATYPE(QList<Row>)

class TestTessaroServer : public QObject
{
    Q_OBJECT

private slots:
    void statesHaveNames_data();
    void statesHaveNames();
    void controllerImageEndsWithItsHighestTag_data();
    void controllerImageEndsWithItsHighestTag();
    void anEmptyTagTableIsFatal();
};

void TestTessaroServer::statesHaveNames_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("name");

    QTest::newRow("0") << 0 << QStringLiteral("INITIAL");
    QTest::newRow("1") << 1 << QStringLiteral("STOPPED");
    QTest::newRow("2") << 2 << QStringLiteral("EXTERNAL_LINK_ERROR");
    QTest::newRow("3") << 3 << QStringLiteral("BLOCKED");
    QTest::newRow("4") << 4 << QStringLiteral("FAILED");
    QTest::newRow("5, in the gap") << 5 << QStringLiteral("UNKNOWN");
    QTest::newRow("15, in the gap") << 15 << QStringLiteral("UNKNOWN");
    QTest::newRow("16") << 16 << QStringLiteral("DISARMED");
    QTest::newRow("17") << 17 << QStringLiteral("ARMED");
    QTest::newRow("18") << 18 << QStringLiteral("UNKNOWN");
    QTest::newRow("negative") << -1 << QStringLiteral("UNKNOWN");
}

void TestTessaroServer::statesHaveNames()
{
    QFETCH(int, state);
    QFETCH(QString, name);

    QCOMPARE(BuStateToString(state), name);
}

void TestTessaroServer::controllerImageEndsWithItsHighestTag_data()
{
    QTest::addColumn<QList<Row>>("rows");
    QTest::addColumn<quint32>("size");

    QTest::newRow("first of two tags at the highest start decides")
        << QList<Row>{{Tag::EGOT, 0, 4}, {Tag::EGOT, 4, 2}, {Tag::EGOT, 4, 8}} << 6U;
    QTest::newRow("a longer tag further down does not count")
        << QList<Row>{{Tag::EGOT, 2, 100}, {Tag::EGOT, 4, 2}} << 6U;
    QTest::newRow("a tag at byte 0 alone gives nothing") << QList<Row>{{Tag::EGOT, 0, 4}} << 0U;
    QTest::newRow("tags of other links do not count") << QList<Row>{{Tag::BIIT, 50, 4}, {Tag::EGOT, 4, 1}} << 5U;
    QTest::newRow("no tag of the link") << QList<Row>{{Tag::NOLK, 8, 4}} << 0U;
    QTest::newRow("start bytes are unsigned") << QList<Row>{{Tag::EGOT, 40000, 4}, {Tag::EGOT, 4, 1}} << 40004U;
}

void TestTessaroServer::controllerImageEndsWithItsHighestTag()
{
    QFETCH(QList<Row>, rows);
    QFETCH(quint32, size);
    TagDatabase tags(nullptr);
    addTags(tags, rows);

    QCOMPARE(TessaroServer::vrpoByteCountOf(tags), size);
}

void TestTessaroServer::anEmptyTagTableIsFatal()
{
    VERIFY_FATAL(QStringLiteral("src/tessaroserver"), 186, {
        TagDatabase tags(nullptr);
        TessaroServer::vrpoByteCountOf(tags);
    });
}

QTEST_GUILESS_MAIN(TestTessaroServer)
#include "tst_tessaroserver.moc"
