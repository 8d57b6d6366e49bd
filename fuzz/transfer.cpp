// Fuzzes the engine of the file transfer, which receives and sends a file at once. The input is a
// list of datagrams, each preceded by a byte with its length. An empty datagram stands for a tick.
#include "Fuzzing.h"
#include "TTransferData.h"

#include <QDir>
#include <QTimerEvent>

namespace {

constexpr int never = 86'400'000; // milliseconds: the engine never ticks by itself

void writeSource(const QString &path)
{
    QFile file(path);
    require(file.open(QFile::WriteOnly));
    for (uint i = 1, noise = 1; i < 1'000; ++i, noise = noise * 1'103'515'245 + 12'345)
        file.putChar(char(noise >> 16));
}

// Requires that the engine has written the reported files and nothing else. Removes them.
void requireNothingElse(const QDir &top, QStringList reported)
{
    QDir folder(top.filePath(QStringLiteral("received")));
    const auto everything = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    require(top.entryList(everything).size() == 2);
    reported.removeDuplicates();
    require(folder.entryList(everything).size() == reported.size());
    for (const QString &name : std::as_const(reported))
        require(folder.remove(name));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Fuzzing fuzzing;
    const QDir top(fuzzing.folder.path());
    const QString source = top.filePath(QStringLiteral("source"));
    if (top.mkpath(QStringLiteral("received")) && !QFile::exists(source))
        writeSource(source);

    TFileTransfer engine(never, 0, nullptr);
    QStringList received;
    QObject::connect(&engine, &TFileTransfer::FileReceived, &engine,
        [&](const QString &name) { received.append(name); });
    engine.SendPath(top.filePath(QStringLiteral("received/")));
    engine.OpenFile(source);
    for (QByteArray rest = bytesOf(data, size); !rest.isEmpty();) {
        QByteArray datagram = rest.mid(1, uchar(rest[0]));
        rest.remove(0, 1 + datagram.size());
        QTimerEvent tick(0);
        if (datagram.isEmpty())
            engine.timerEvent(&tick);
        else
            engine.ReceiveData(datagram.data(), int(datagram.size()));
    }

    requireNothingElse(top, received);
    return 0;
}
