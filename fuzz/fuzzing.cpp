#include "fuzzing.h"

#include <QDir>
#include <QFile>
#include <QtGlobal>

#include <unistd.h>

void silenceLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

QString fileWith(const QByteArray& content)
{
    static const QString folder =
        QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm") : QDir::tempPath();
    static const QString path = QStringLiteral("%1/tessaro-fuzz-%2").arg(folder).arg(::getpid());
    static const int removal = std::atexit([] { QFile::remove(path); });
    Q_UNUSED(removal)
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    FUZZ_CHECK(file.write(content) == content.size());
    return path;
}
