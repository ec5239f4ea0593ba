#include "textfile.h"

#include "regularfile.h"

#include <QFile>
#include <QSaveFile>

bool readTextFile(const QString& path, QByteArray& content, QString& error)
{
    content.clear();
    QFile file;
    if (openRegularFile(path, file, error) != FileOpening::Opened) {
        return false;
    }
    // One byte more than allowed tells "too large" also for files that do not know their size (those of /proc).
    content = file.read(MaxTextFileBytes + 1);
    if (file.error() != QFileDevice::NoError) {
        error = file.errorString();
    } else if (content.size() > MaxTextFileBytes) {
        error = QStringLiteral("File has more than %1 bytes").arg(MaxTextFileBytes);
    } else {
        return true;
    }
    content.clear();
    return false;
}

QByteArrayList splitLines(const QByteArray& text)
{
    QByteArrayList lines;
    int start = 0;
    while (start < text.size()) {
        const int lineFeed = text.indexOf('\n', start);
        const int end = lineFeed < 0 ? text.size() : lineFeed + 1;
        lines.append(text.mid(start, end - start));
        start = end;
    }
    return lines;
}

bool replaceTextFile(const QString& path, const QByteArray& content)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    // On a full disk QSaveFile reports neither a short write nor a failed flush at commit: they are looked for here.
    if (file.write(content) != content.size() || !file.flush()) {
        file.cancelWriting();
    }
    return file.commit();
}
