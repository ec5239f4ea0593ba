// Single steps of the server, repeated until the clock can tell: CRC, byte stuffing, GLink frames, process images.

#include "apiserver.h"
#include "crc_std32.h"
#include "frame_layer.h"
#include "glinkheader.h"
#include "glinktransportbase.h"
#include "logwriter.h"
#include "tagdatabase.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>
#include <unistd.h>

namespace {

/// Bytes of every value, so that about one in 85 has to be escaped.
QByteArray mixedBytes(int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i) {
        bytes.append(static_cast<char>(i * 37));
    }
    return bytes;
}

void countBytes(benchmark::State& state)
{
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void crcCheck(benchmark::State& state)
{
    QByteArray data = mixedBytes(static_cast<int>(state.range(0)));
    CrcStd32::add(data);
    for (auto _ : state) {
        benchmark::DoNotOptimize(CrcStd32::check(data));
    }
    countBytes(state);
}
BENCHMARK(crcCheck)->Arg(7)->Arg(86)->Arg(512);

void stuff(benchmark::State& state)
{
    FrameLayer layer(nullptr);
    const QByteArray packet = mixedBytes(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(layer.add(packet));
    }
    countBytes(state);
}
BENCHMARK(stuff)->Arg(86)->Arg(500);

void unstuff(benchmark::State& state)
{
    FrameLayer layer(nullptr);
    const QByteArray frame = layer.add(mixedBytes(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        benchmark::DoNotOptimize(layer.remove(frame));
    }
    countBytes(state);
}
BENCHMARK(unstuff)->Arg(86)->Arg(500);

// --- GLink ----------------------------------------------------------------------------------------------------------

/// The protocol engine with nothing behind it: what it would send goes nowhere.
class Engine final : public GLinkTransportBase
{
public:
    Engine()
        : GLinkTransportBase(0, nullptr, nullptr, nullptr)
    {}
    void feed(const QByteArray& bytes)
    {
        m_incomingData.append(bytes);
        parseStream();
    }
    void handleInitAckMsg() override {}
    void handleCrcError() override { qFatal("the benchmark's frames are damaged"); }
    void run() override {}
    void send(quint16, quint8, const QByteArray&, quint32) override {}
};

QByteArray glinkCommand(int payloadSize)
{
    GLinkHeader header;
    header.size = static_cast<quint16>(payloadSize);
    header.stream = 0;
    header.msgId = GLINK_MSG_ID_CMD;
    header.msgType = GLINK_MSG_TYPE_MSG;
    header.time = 0;
    QByteArray frame = header.serialize() + mixedBytes(payloadSize);
    CrcStd32::add(frame);
    return frame;
}

/// One frame in, its acknowledgement built, the message announced.
void glinkParse(benchmark::State& state)
{
    Engine engine;
    int announced = 0;
    QObject::connect(&engine, &GLinkTransportBase::readyReadFromGLink, [&announced] { ++announced; });
    const QByteArray frame = glinkCommand(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        engine.feed(frame);
    }
    if (announced != state.iterations()) {
        state.SkipWithError("frames were lost");
    }
    countBytes(state);
}
BENCHMARK(glinkParse)->Arg(16)->Arg(204);

// --- process image --------------------------------------------------------------------------------------------------

constexpr int TagBytes = 2;

/// A tag file of numbers of two bytes side by side, loaded as the server loads it.
class Tags
{
public:
    explicit Tags(int count)
        : image(count * TagBytes, '\0')
    {
        QFile file(m_folder.filePath(QStringLiteral("tags.csv")));
        if (!file.open(QIODevice::WriteOnly)) {
            qFatal("no room for the tag file");
        }
        file.write("tag;label;startByte;byteSize;startBit;bitSize;dataType\nName;;;;;;\n");
        for (int i = 0; i < count; ++i) {
            file.write(QByteArray("value_" + QByteArray::number(i) + ";;" + QByteArray::number(i * TagBytes) + ";" +
                                  QByteArray::number(TagBytes) + ";0;0;UINT\n"));
        }
        file.close();
        database.loadTagFiles({{file.fileName(), Tag::BIIT}});
        database.processProsessData(image);
    }

    TagDatabase database;
    QByteArray image;

private:
    QTemporaryDir m_folder;
};

void imageUnchanged(benchmark::State& state)
{
    Tags tags(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        tags.database.processProsessData(tags.image);
    }
}
BENCHMARK(imageUnchanged)->Arg(500);

void imageAllChanged(benchmark::State& state)
{
    Tags tags(static_cast<int>(state.range(0)));
    char fill = 0;
    for (auto _ : state) {
        tags.image.fill(++fill);
        tags.database.processProsessData(tags.image);
    }
    const Tag* const last = tags.database.get(QStringLiteral("value_%1").arg(state.range(0) - 1));
    const auto expected = static_cast<quint8>(fill) * 257U;
    if (last == nullptr || last->getValue().toUInt() != expected) {
        state.SkipWithError("the image was not decoded");
    }
}
BENCHMARK(imageAllChanged)->Arg(500);

/// What a change of one status value costs the API: the object with all of them, behind so many other tags.
void statusObject(benchmark::State& state)
{
    Tags tags(static_cast<int>(state.range(0)));
    for (const char* const name :
         {"bu_identity", "bu_state", "tsaps", "unarmed_rus", "eglink_stat_out", "eclink_status", "clink_status",
          "armed_ru", "ru_state", "BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3"}) {
        auto* const tag = new Tag(QString::fromLatin1(name), &tags.database);
        tag->setValue(QVariant(1001U));
        tags.database.append(tag);
    }
    APIServer server(&tags.database, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(server.getData());
    }
}
BENCHMARK(statusObject)->Arg(50)->Arg(500);

// --- log ------------------------------------------------------------------------------------------------------------

/// A pipe whose reader takes everything, as the journal does.
class ReadPipe
{
public:
    ReadPipe()
    {
        if (pipe(m_ends) != 0) {
            qFatal("no pipe");
        }
        m_reader = std::thread([end = m_ends[0]] {
            char bytes[65536];
            while (read(end, bytes, sizeof(bytes)) > 0) {
            }
        });
    }
    ~ReadPipe()
    {
        close(m_ends[1]);
        m_reader.join();
        close(m_ends[0]);
    }
    int writeEnd() const { return m_ends[1]; }

private:
    int m_ends[2] = {-1, -1};
    std::thread m_reader;
};

constexpr char LinePattern[] = "%{time yyyyMMdd hh:mm:ss.zzz} - %{message}";
constexpr auto LinePause = std::chrono::microseconds(50); // lines come one by one: the writer is asleep again

void logOneLine(benchmark::State& state)
{
    for (auto _ : state) {
        qDebug() << "TransportLayer: packet" << 17 << "sent again";
        state.PauseTiming();
        std::this_thread::sleep_for(LinePause);
        state.ResumeTiming();
    }
}

/// What a line costs the thread that logs when Qt's own handler writes it: the measure for the next.
void logLineDirectly(benchmark::State& state)
{
    qSetMessagePattern(QString::fromLatin1(LinePattern));
    const ReadPipe pipe;
    const int kept = dup(STDERR_FILENO);
    dup2(pipe.writeEnd(), STDERR_FILENO);
    const QtMessageHandler quietHandler = qInstallMessageHandler(nullptr);
    logOneLine(state);
    qInstallMessageHandler(quietHandler);
    dup2(kept, STDERR_FILENO);
    close(kept);
}
BENCHMARK(logLineDirectly)->UseRealTime()->Iterations(4000);

LogWriter* s_logWriter = nullptr;

void logLine(benchmark::State& state)
{
    const ReadPipe pipe;
    LogWriter writer(pipe.writeEnd());
    s_logWriter = &writer;
    const QtMessageHandler quietHandler =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
            s_logWriter->add(LogWriter::lineOf(message, QDateTime::currentMSecsSinceEpoch()));
        });
    logOneLine(state);
    qInstallMessageHandler(quietHandler);
}
BENCHMARK(logLine)->UseRealTime()->Iterations(4000);

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

int main(int argc, char** argv)
{
    qputenv("TZ", ":/etc/localtime"); // as the server does: without it each line costs more
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(quiet); // loading the tags tells of it on the output that holds the results
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
