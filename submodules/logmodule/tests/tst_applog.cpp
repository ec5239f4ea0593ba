#include "applog.h"
#include "logspy.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

class TestAppLog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startsWithFileNumberZero();
    void tellsWhatItDoesOnAnEmptyFolder();
    void recordIsTimeLabelReferenceAndMessage();
    void recordIsUtf8AndUnescaped();
    void recordIsOnDiskAtOnce();
    void fewerThanTwoFilesCountAsTwo_data();
    void fewerThanTwoFilesCountAsTwo();
    void rotatesByLineCountAndKeepsTwoFiles();
    void rotationTellsWhatItMoves();
    void rotationStartsWithAnEmptyFile();
    void continuesTheNewestFile();
    void countsALastLineWithoutLineFeed();
    void keepsOnlyTheNewestFilesAfterTheLimitWasLowered();
    void packsALonelyHighNumberDown();
    void startUpTellsWhatItRearranges();
    void leavesOtherFilesAlone();
    void zeroLinesPerFileRotateBeforeEveryRecord();
    void survivesAMissingFolder();
    void takesRecordsFromOtherThreadsByQueuedCall();

private:
    QString path(const QString& name) const { return m_folder->filePath(name); }
    void put(const QString& name, const QByteArray& content) const;
    QByteArray content(const QString& name) const;
    QStringList files() const { return QDir(m_folder->path()).entryList(QDir::Files, QDir::Name); }
    /// The messages of the records in a file, without the rest.
    QByteArrayList messages(const QString& name) const;
    void writeRecords(AppLog& log, int first, int last) const;

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<LogSpy> m_spy;
};

void TestAppLog::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
    m_spy.reset(new LogSpy);
}

void TestAppLog::cleanup()
{
    m_spy.reset();
    m_folder.reset();
}

void TestAppLog::put(const QString& name, const QByteArray& content) const
{
    QFile file(path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

QByteArray TestAppLog::content(const QString& name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no such file)");
}

QByteArrayList TestAppLog::messages(const QString& name) const
{
    QByteArrayList found;
    const QByteArrayList records = content(name).split('\n');
    for (const QByteArray& record : records) {
        found.append(record.mid(record.lastIndexOf(';') + 1));
    }
    found.removeLast(); // what follows the last line feed
    return found;
}

void TestAppLog::writeRecords(AppLog& log, int first, int last) const
{
    for (int number = first; number <= last; ++number) {
        log.write("label", "tag", QString::number(number));
    }
}

void TestAppLog::startsWithFileNumberZero()
{
    const AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    QCOMPARE(files(), QStringList{"rulog_0"});
    QCOMPARE(content("rulog_0"), QByteArray());
}

void TestAppLog::tellsWhatItDoesOnAnEmptyFolder()
{
    {
        AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
        log.write("a", "b", "c");
    }
    const QString base = path("rulog");
    const QStringList expected = {
        "AppLog::AppLog()",
        QString("Using log file prefix \"%1\"").arg(base),
        "Searching with pattern \"rulog_*\"",
        "No existing files.",
        "No files found.",
        QString("Using file \"%1_0\"").arg(base),
        "Line count 0",
        "AppLog::write()",
        "AppLog::~AppLog()",
    };
    QCOMPARE(m_spy->lines(QtDebugMsg), expected);
    QCOMPARE(m_spy->lines(), expected);
}

void TestAppLog::recordIsTimeLabelReferenceAndMessage()
{
    AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    const QDateTime before = QDateTime::currentDateTime();
    log.write("ALARM", "bu_state", "stopped");
    const QDateTime after = QDateTime::currentDateTime();

    const QRegularExpression form("^(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d);ALARM;bu_state;stopped\\n$");
    const QRegularExpressionMatch match = form.match(QString::fromUtf8(content("rulog_0")));
    QVERIFY2(match.hasMatch(), content("rulog_0").constData());
    const QDateTime time = QDateTime::fromString(match.captured(1), "yyyy-MM-ddThh:mm:ss");
    QVERIFY(before.addSecs(-1) < time && time <= after);
}

void TestAppLog::recordIsUtf8AndUnescaped()
{
    AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    log.write("a;b", "", QString::fromUtf8("\xC3\xA5 \"x\""));
    QCOMPARE(content("rulog_0").mid(19), QByteArray(";a;b;;\xC3\xA5 \"x\"\n"));
}

void TestAppLog::recordIsOnDiskAtOnce()
{
    AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    writeRecords(log, 1, 1);
    QCOMPARE(messages("rulog_0"), QByteArrayList{"1"});
    writeRecords(log, 2, 2);
    QCOMPARE(messages("rulog_0"), (QByteArrayList{"1", "2"}));
}

void TestAppLog::fewerThanTwoFilesCountAsTwo_data()
{
    QTest::addColumn<int>("maxFiles");
    QTest::newRow("no file") << 0;
    QTest::newRow("one file") << 1;
    QTest::newRow("two files") << 2;
}

void TestAppLog::fewerThanTwoFilesCountAsTwo()
{
    QFETCH(int, maxFiles);
    AppLog log("rulog", m_folder->path(), 1, static_cast<quint16>(maxFiles), nullptr);
    writeRecords(log, 1, 5);
    QCOMPARE(files(), (QStringList{"rulog_0", "rulog_1"}));
    QCOMPARE(messages("rulog_0"), QByteArrayList{"4"});
    QCOMPARE(messages("rulog_1"), QByteArrayList{"5"});
}

void TestAppLog::rotatesByLineCountAndKeepsTwoFiles()
{
    AppLog log("rulog", m_folder->path(), 3, 2, nullptr);
    writeRecords(log, 1, 3);
    QCOMPARE(files(), QStringList{"rulog_0"});
    writeRecords(log, 4, 4);
    QCOMPARE(messages("rulog_0"), (QByteArrayList{"1", "2", "3"}));
    QCOMPARE(messages("rulog_1"), QByteArrayList{"4"});
    writeRecords(log, 5, 7);
    QCOMPARE(files(), (QStringList{"rulog_0", "rulog_1"}));
    QCOMPARE(messages("rulog_0"), (QByteArrayList{"4", "5", "6"}));
    QCOMPARE(messages("rulog_1"), QByteArrayList{"7"});
}

void TestAppLog::rotationTellsWhatItMoves()
{
    AppLog log("rulog", m_folder->path(), 1, 3, nullptr);
    writeRecords(log, 1, 3);
    m_spy->clear();
    writeRecords(log, 4, 4);
    const QString base = path("rulog");
    QCOMPARE(m_spy->lines(QtDebugMsg), (QStringList{
                                           "AppLog::write()",
                                           "AppLog::rotateFiles()",
                                           QString("Removed \"%1_0\"").arg(base),
                                           QString("Renamed \"%1_1\"  -->  \"%1_0\"").arg(base),
                                           QString("Renamed \"%1_2\"  -->  \"%1_1\"").arg(base),
                                           QString("Current file: \"%1_2\"").arg(base),
                                       }));
}

void TestAppLog::rotationStartsWithAnEmptyFile()
{
    AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    put("rulog_1", "left over\n");
    log.rotateFiles();
    QCOMPARE(content("rulog_1"), QByteArray());
    writeRecords(log, 1, 1);
    QCOMPARE(messages("rulog_1"), QByteArrayList{"1"});
}

void TestAppLog::continuesTheNewestFile()
{
    put("rulog_0", "x\nx\nx\n");
    put("rulog_1", "t;l;r;old\n\nt;l;r;older\n"); // an empty line is a line
    AppLog log("rulog", m_folder->path(), 4, 3, nullptr);
    QVERIFY(m_spy->contains("Line count 3"));
    writeRecords(log, 1, 2);
    QCOMPARE(content("rulog_0"), QByteArray("x\nx\nx\n"));
    QCOMPARE(messages("rulog_1"), (QByteArrayList{"old", "", "older", "1"}));
    QCOMPARE(messages("rulog_2"), QByteArrayList{"2"});
}

void TestAppLog::countsALastLineWithoutLineFeed()
{
    put("rulog_0", QByteArray(10000, 'x') + "\nhalf");
    const AppLog log("rulog", m_folder->path(), 4, 3, nullptr);
    QVERIFY(m_spy->contains("Line count 2"));
}

void TestAppLog::keepsOnlyTheNewestFilesAfterTheLimitWasLowered()
{
    for (int number = 0; number <= 5; ++number) {
        put("rulog_" + QString::number(number), QByteArray::number(number) + "\n\n");
    }
    AppLog log("rulog", m_folder->path(), 3, 3, nullptr);
    QCOMPARE(files(), (QStringList{"rulog_0", "rulog_1", "rulog_2"}));
    QCOMPARE(content("rulog_0"), QByteArray("3\n\n"));
    QCOMPARE(content("rulog_1"), QByteArray("4\n\n"));
    QCOMPARE(content("rulog_2"), QByteArray("5\n\n"));
    writeRecords(log, 6, 7); // two lines were there: one more fits, then the set is full
    QCOMPARE(messages("rulog_1"), (QByteArrayList{"5", "", "6"}));
    QCOMPARE(messages("rulog_2"), QByteArrayList{"7"});
}

void TestAppLog::packsALonelyHighNumberDown()
{
    put("rulog_7", "a\nb\n");
    AppLog log("rulog", m_folder->path(), 10, 3, nullptr);
    QCOMPARE(files(), QStringList{"rulog_0"});
    QVERIFY(m_spy->contains("Line count 2"));
    QCOMPARE(m_spy->lines().filter("Removed"), QStringList());
    writeRecords(log, 1, 1);
    QCOMPARE(messages("rulog_0"), (QByteArrayList{"a", "b", "1"}));
}

void TestAppLog::startUpTellsWhatItRearranges()
{
    put("rulog_0", "");
    put("rulog_2", "");
    put("rulog_65535", "");
    const AppLog log("rulog", m_folder->path(), 10, 2, nullptr);
    const QString base = path("rulog");
    QCOMPARE(m_spy->lines().mid(2), (QStringList{
                                        "Searching with pattern \"rulog_*\"",
                                        "Existing files:",
                                        "\"rulog_0\"",
                                        "\"rulog_2\"",
                                        "\"rulog_65535\"",
                                        "\"rulog_65535\" exists.",
                                        "Max file id should be 1 , highest found is 65535",
                                        "Rearranging log files...",
                                        QString("Removed \"%1_0\"").arg(base),
                                        QString("Removed \"%1_2\"").arg(base),
                                        QString("Renamed \"%1_65535\"  -->  \"%1_0\"").arg(base),
                                        QString("Using file \"%1_0\"").arg(base),
                                        "Line count 0",
                                    }));
}

void TestAppLog::leavesOtherFilesAlone()
{
    put("rulog_x", "1\n");
    put("rulog_07", "2\n");
    put("otherlog_0", "3\n");
    put("rulog_65536", "4\n");
    AppLog log("rulog", m_folder->path(), 1, 2, nullptr);
    writeRecords(log, 1, 4);
    QCOMPARE(files(), (QStringList{"otherlog_0", "rulog_0", "rulog_07", "rulog_1", "rulog_65536", "rulog_x"}));
    QCOMPARE(content("rulog_x"), QByteArray("1\n"));
    QCOMPARE(content("rulog_07"), QByteArray("2\n"));
    QCOMPARE(content("otherlog_0"), QByteArray("3\n"));
    QCOMPARE(content("rulog_65536"), QByteArray("4\n"));
}

void TestAppLog::zeroLinesPerFileRotateBeforeEveryRecord()
{
    AppLog log("rulog", m_folder->path(), 0, 2, nullptr);
    writeRecords(log, 1, 1);
    QCOMPARE(content("rulog_0"), QByteArray());
    QCOMPARE(messages("rulog_1"), QByteArrayList{"1"});
    writeRecords(log, 2, 2);
    QCOMPARE(messages("rulog_0"), QByteArrayList{"1"});
    QCOMPARE(messages("rulog_1"), QByteArrayList{"2"});
}

void TestAppLog::survivesAMissingFolder()
{
    AppLog log("rulog", path("absent"), 1, 2, nullptr);
    writeRecords(log, 1, 2);
    QCOMPARE(m_spy->lines(QtWarningMsg), QStringList());

    // The next rotation opens a file again.
    QVERIFY(QDir(m_folder->path()).mkdir("absent"));
    writeRecords(log, 3, 3);
    QCOMPARE(messages("absent/rulog_1"), QByteArrayList{"3"});
}

void TestAppLog::takesRecordsFromOtherThreadsByQueuedCall()
{
    AppLog log("rulog", m_folder->path(), 10, 2, nullptr);
    QScopedPointer<QThread> other(QThread::create([&log] {
        QMetaObject::invokeMethod(&log, "write", Qt::QueuedConnection, Q_ARG(QString, "label"), Q_ARG(QString, "tag"),
                                  Q_ARG(QString, "from afar"));
    }));
    other->start();
    QVERIFY(other->wait(5000));
    QCOMPARE(messages("rulog_0"), QByteArrayList());
    QTRY_COMPARE(messages("rulog_0"), QByteArrayList{"from afar"});
}

QTEST_GUILESS_MAIN(TestAppLog)
#include "tst_applog.moc"
