// Configuration files of any content: read, and rewritten until nothing changes any more.

#include "configfile.h"
#include "fuzzing.h"

#include <QFile>
#include <QSet>

namespace {

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

void judge(const ConfigFile& file)
{
    const QVector<QString> columns = file.getAllColumnKeys();
    for (const QString& row : file.getAllTags()) {
        FUZZ_CHECK(!row.isEmpty() && !row.contains(QLatin1Char(';')));
        for (const QString& column : columns) {
            const QString value = file.getValue(row, column);
            FUZZ_CHECK(value == value.simplified() && !value.contains(QLatin1Char(';')));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    const QString path = fileWith(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    ConfigFile first(path, nullptr);
    judge(first);
    if (!first.writeData()) {
        return 0;
    }
    const QVector<QString> columns = first.getAllColumnKeys();
    if (QSet<QString>(columns.begin(), columns.end()).size() != columns.size()) {
        return 0; // a column of the last one's name has no separator behind it, so its rows change with each rewriting
    }
    // One rewriting may drop rows that cannot be written, such as blank lines; from then on the file is stable.
    FUZZ_CHECK(ConfigFile(path, nullptr).writeData());
    const QByteArray stable = contentOf(path);
    ConfigFile again(path, nullptr);
    judge(again);
    FUZZ_CHECK(again.writeData());
    FUZZ_CHECK(contentOf(path) == stable);
    return 0;
}
