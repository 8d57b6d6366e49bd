// Fuzzes the engine of the file transfer, which receives and sends a file at once. The input is a
// list of datagrams, each preceded by a byte with its length. An empty datagram stands for a tick.
#include "Channel.h"
#include "Fuzzing.h"

namespace {

constexpr int never = 86'400'000; // milliseconds: the engine never ticks by itself

// Requires that the engine has written the reported files and nothing else. Removes them.
void requireNothingElse(const QDir &top, QStringList reported)
{
    QDir folder(top.filePath(u"received"_s));
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
    static const QString source = fuzzing.writeFile(u"source"_s, noise(999, 1));
    static const QString folder = fuzzing.makeFolder(u"received"_s) + u'/';
    TFileTransfer engine(never, 0, nullptr);
    QStringList received;
    QObject::connect(&engine, &TFileTransfer::FileReceived, &engine,
        [&](const QString &name) { received.append(name); });
    engine.SendPath(folder);
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
    requireNothingElse(QDir(fuzzing.path()), received);
    return 0;
}
