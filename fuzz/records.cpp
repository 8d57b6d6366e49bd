// Fuzzes the readers of records and frames. A link's bytes arrive in two pieces; the first byte of
// the input says where they are cut.
#include "BusFrame.h"
#include "Fuzzing.h"
#include "Record.h"

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

    LinkRecord::Reader reader(1'000);
    const qsizetype cut = bytes.isEmpty() ? 0 : std::min<qsizetype>(data[0], bytes.size());
    QByteArray read;
    for (const QByteArray &piece : {bytes.first(cut), bytes.sliced(cut)}) {
        reader.append(piece);
        while (const auto body = reader.next())
            read += LinkRecord::make(*body);
    }
    require(bytes.startsWith(read));
    require(reader.refusedLength() == 0 || reader.refusedLength() > 1'000);

    LinkRecord::AcknowledgementReader numbers;
    QByteArray numbersRead;
    for (const QByteArray &piece : {bytes.first(cut), bytes.sliced(cut)}) {
        numbers.append(piece);
        while (const auto number = numbers.next())
            numbersRead += LinkRecord::acknowledgement(*number);
    }
    require(numbersRead == bytes.first(bytes.size() - bytes.size() % 8));
    return 0;
}
