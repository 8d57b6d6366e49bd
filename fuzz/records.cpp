// Fuzzes the readers of records and frames. A link's bytes arrive in two pieces; the first byte of
// the input says where they are cut.
#include "BusFrame.h"
#include "DataRecord.h"
#include "Fuzzing.h"
#include "LinkRecord.h"

namespace {

// Returns what the reader finds in a link's bytes, written again.
QByteArray rewritten(const QByteArray &bytes, auto &reader, auto write)
{
    const qsizetype cut = bytes.isEmpty() ? 0 : std::min<qsizetype>(uchar(bytes[0]), bytes.size());
    QByteArray result;
    for (const QByteArray &piece : {bytes.first(cut), bytes.sliced(cut)}) {
        reader.append(piece);
        while (const auto item = reader.next())
            result += write(*item);
    }
    return result;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = bytesOf(data, size);
    const DataRecord record = DataRecord::read(bytes);
    const QByteArray written = record.write();
    const DataRecord again = DataRecord::read(written);
    require(again.kind == record.kind && again.fileName == record.fileName
        && again.payload == record.payload);
    BusFrame frame, same;
    frame.read(bytes);
    same.takeOver(bytes);
    require(frame.name.size() + frame.message.size() + frame.data.size() <= bytes.size());
    require(frame.kind == same.kind && frame.name == same.name && frame.message == same.message
        && frame.data == same.data && frame.id == same.id);
    LinkRecord::Reader records(1'000);
    require(bytes.startsWith(rewritten(bytes, records, LinkRecord::make)));
    require(records.refusedLength() == 0 || records.refusedLength() > 1'000);
    LinkRecord::AcknowledgementReader numbers;
    require(rewritten(bytes, numbers, LinkRecord::acknowledgement)
        == bytes.first(bytes.size() - bytes.size() % 8));
    return 0;
}
