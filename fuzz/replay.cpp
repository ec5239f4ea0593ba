// Runs a fuzz target over kept inputs: every file of the folders that are given, and of none other.

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replayFolder(const QString& folder)
{
    int count = 0;
    QDirIterator files(folder, QDir::Files);
    while (files.hasNext()) {
        QFile file(files.next());
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
            std::exit(1);
        }
        std::fprintf(stderr, "%s\n", qPrintable(file.fileName()));
        const QByteArray content = file.readAll();
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.constData()),
                               static_cast<std::size_t>(content.size()));
        ++count;
    }
    return count;
}

} // namespace

int main(int argc, char* argv[])
{
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        count += replayFolder(QString::fromLocal8Bit(argv[i]));
    }
    std::printf("%d inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
