#include "applicationconfig.h"

#include "logspy.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const PairingKeys Keys{{1, 4294967295U, 0, 305419896}};

} // namespace

class TestApplicationConfig : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void writesBothFiles();
    void keepsOtherRowsAndColumns();
    void addsMissingRows();
    void valuesThatWouldBreakTheTableAreLeftOut_data();
    void valuesThatWouldBreakTheTableAreLeftOut();
    void failsWithALogLine_data();
    void failsWithALogLine();
    void leavesTheAppFileAloneWhenTheKeysCannotBeWritten();
    void linksStayLinksInsideTheApplication();
    void linksOutOfTheApplicationAreRefused();
    void touchesNoFile();

private:
    /// As pairing does it in the end: replaces both files, or none.
    static bool writeConfig(const QString& appPath, const PairingKeys& keys,
                            const QVector<ApplicationSetting>& settings)
    {
        const QVector<TextFileChange> changes = prepareApplicationConfig(appPath, keys, settings);
        return !changes.isEmpty() && std::all_of(changes.begin(), changes.end(), [](const TextFileChange& change) {
            return replaceTextFile(change.path, change.after);
        });
    }
    QString path(const QString& name) const { return m_folder->path() + QLatin1Char('/') + name; }
    QString app() const { return path(QStringLiteral("app")); }
    void write(const QString& name, const QByteArray& content)
    {
        QFile file(path(name));
        QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(name));
        file.write(content);
    }
    QByteArray read(const QString& name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<LogSpy> m_log;
};

void TestApplicationConfig::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir().mkpath(path(QStringLiteral("app/config"))));
    write(QStringLiteral("app/config/keys.csv"), "tag;value\nKey;Value\nPKY1;0\nPKY2;0\nPKY3;0\nPKY4;0\n");
    write(QStringLiteral("app/config/app.csv"), "tag;value\nKey;Value\nBUID;0\nCCH1;0\n");
    m_log = std::make_unique<LogSpy>();
}

void TestApplicationConfig::cleanup()
{
    m_log.reset();
    m_folder.reset();
}

void TestApplicationConfig::writesBothFiles()
{
    QVERIFY(writeConfig(app(), Keys, {{"BUID", "1001"}, {"CCH1", "11"}}));

    QCOMPARE(read("app/config/keys.csv"),
             QByteArray("tag;value\nKey;Value\nPKY1;1\nPKY2;4294967295\nPKY3;0\nPKY4;305419896\n"));
    QCOMPARE(read("app/config/app.csv"), QByteArray("tag;value\nKey;Value\nBUID;1001\nCCH1;11\n"));
}

void TestApplicationConfig::keepsOtherRowsAndColumns()
{
    write("app/config/keys.csv",
          "tag;from;value;note\nKey;Origin;Value;Note\nOWN;x;secret;mine\nPKY2;RGP;9;two\nPKY1;RGP;9;one\n"
          "PKY3;RGP;9;three\nPKY4;RGP;9;four\n");
    write("app/config/app.csv", "tag;value;note\nKey;Value;Note\nVOLT;24;left alone\nBUID;7;base\nSID1;old net;\n");

    QVERIFY(writeConfig(app(), Keys, {{"BUID", "1001"}, {"SID1", "new net"}}));

    QCOMPARE(read("app/config/keys.csv"),
             QByteArray("tag;from;value;note\nKey;Origin;Value;Note\nOWN;x;secret;mine\nPKY2;RGP;4294967295;two\n"
                        "PKY1;RGP;1;one\nPKY3;RGP;0;three\nPKY4;RGP;305419896;four\n"));
    QCOMPARE(read("app/config/app.csv"), QByteArray("tag;value;note\nKey;Value;Note\nVOLT;24;left alone\n"
                                                    "BUID;1001;base\nSID1;new net;\n"));
}

void TestApplicationConfig::addsMissingRows()
{
    write("app/config/keys.csv", "tag;value\nKey;Value\n");
    write("app/config/app.csv", "tag;from;value\nKey;Origin;Value\n");

    QVERIFY(writeConfig(app(), Keys, {{"BUID", "1001"}, {"WPA1", "pass phrase"}}));

    QCOMPARE(read("app/config/keys.csv"),
             QByteArray("tag;value\nKey;Value\nPKY1;1\nPKY2;4294967295\nPKY3;0\nPKY4;305419896\n"));
    QCOMPARE(read("app/config/app.csv"),
             QByteArray("tag;from;value\nKey;Origin;Value\nBUID;0;1001\nWPA1;0;pass phrase\n"));
}

void TestApplicationConfig::valuesThatWouldBreakTheTableAreLeftOut_data()
{
    QTest::addColumn<QString>("value");

    QTest::newRow("separator") << "a;b";
    QTest::newRow("line end") << "a\nb";
    QTest::newRow("outer white space, lost by the next load") << " a";
}

void TestApplicationConfig::valuesThatWouldBreakTheTableAreLeftOut()
{
    QFETCH(QString, value);

    QVERIFY(writeConfig(app(), Keys, {{"CCH1", value}, {"BUID", "5"}}));

    QCOMPARE(read("app/config/app.csv"), QByteArray("tag;value\nKey;Value\nBUID;5\nCCH1;0\n"));
    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{"pairserver: The value of \"CCH1\" does not fit into a configuration file"});
}

void TestApplicationConfig::failsWithALogLine_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content"); // null: no file at all

    const QString keys = QStringLiteral("/config/keys.csv");
    const QString settings = QStringLiteral("/config/app.csv");
    QTest::newRow("no keys file") << keys << QByteArray();
    QTest::newRow("empty keys file") << keys << QByteArray("");
    QTest::newRow("keys file without description line") << keys << QByteArray("tag;value\n");
    QTest::newRow("keys file without value column") << keys << QByteArray("tag;number\nKey;Number\n");
    QTest::newRow("no app file") << settings << QByteArray();
    QTest::newRow("app file without value column") << settings << QByteArray("tag;number\nKey;Number\n");
}

void TestApplicationConfig::failsWithALogLine()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    if (content.isNull()) {
        QVERIFY(QFile::remove(app() + file));
    } else {
        write("app" + file, content);
    }

    QVERIFY(!writeConfig(app(), Keys, {{"BUID", "1001"}}));

    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{"pairserver: Could not write the pairing into \"" + app() + file + '"'});
    QCOMPARE(read("app" + file), content.isNull() ? QByteArray("cannot be read") : content);
}

void TestApplicationConfig::leavesTheAppFileAloneWhenTheKeysCannotBeWritten()
{
    QVERIFY(QFile::remove(app() + "/config/keys.csv"));

    QVERIFY(!writeConfig(app(), Keys, {{"BUID", "1001"}}));

    QCOMPARE(read("app/config/app.csv"), QByteArray("tag;value\nKey;Value\nBUID;0\nCCH1;0\n"));
}

void TestApplicationConfig::linksStayLinksInsideTheApplication()
{
    QVERIFY(QFile::rename(app() + "/config/keys.csv", app() + "/keys-of-today.csv"));
    QVERIFY(QFile::link("../keys-of-today.csv", app() + "/config/keys.csv"));

    QVERIFY(writeConfig(app(), Keys, {}));

    QVERIFY(QFileInfo(app() + "/config/keys.csv").isSymLink());
    QVERIFY(read("app/keys-of-today.csv").contains("PKY2;4294967295\n"));
}

void TestApplicationConfig::linksOutOfTheApplicationAreRefused()
{
    const QByteArray foreign = "tag;value\nKey;Value\nPKY1;0\n";
    write("foreign.csv", foreign);
    QVERIFY(QFile::remove(app() + "/config/keys.csv"));
    QVERIFY(QFile::link(path("foreign.csv"), app() + "/config/keys.csv"));

    QVERIFY(!writeConfig(app(), Keys, {}));

    QCOMPARE(read("foreign.csv"), foreign);
}

void TestApplicationConfig::touchesNoFile()
{
    const QVector<TextFileChange> changes = prepareApplicationConfig(app(), Keys, {{"BUID", "1001"}});

    QCOMPARE(changes.size(), 2);
    QCOMPARE(changes.at(0).path, QFileInfo(app() + "/config/keys.csv").canonicalFilePath());
    QCOMPARE(changes.at(1).path, QFileInfo(app() + "/config/app.csv").canonicalFilePath());
    QCOMPARE(changes.at(0).before, read("app/config/keys.csv"));
    QCOMPARE(changes.at(1).before, QByteArray("tag;value\nKey;Value\nBUID;0\nCCH1;0\n"));
    QCOMPARE(QDir(app() + "/config").entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             (QStringList{"app.csv", "keys.csv"}));
}

QTEST_GUILESS_MAIN(TestApplicationConfig)
#include "tst_applicationconfig.moc"
