#include "Packet.h"
#include "ZlibStream.h"

#include <QBuffer>
#include <QRandomGenerator>
#include <QTest>

using Bytes = QByteArray;

namespace {

Bytes hex(const char *text)
{
    return Bytes::fromHex(text);
}

Bytes deflated(Bytes content)
{
    Bytes stream;
    QBuffer source(&content);
    source.open(QIODevice::ReadOnly);
    const auto append = [&](QByteArrayView piece) { return stream.append(piece), true; };
    return ZlibStream::deflate(source, append) == ZlibStream::Result::Done ? stream : "failed";
}

Bytes inflated(const Bytes &stream, qsizetype pieceSize)
{
    Bytes content;
    ZlibStream::Inflater inflater(
        [&](QByteArrayView piece) { return content.append(piece), true; });
    for (qsizetype at = 0; at < stream.size(); at += pieceSize)
        inflater.write(stream.mid(at, pieceSize));
    return content;
}

} // namespace

class tst_packet : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writesEveryKindByteForByte_data();
    void writesEveryKindByteForByte();
    void readsWhatItWrites();
    void ignoresEveryProperPrefix();
    void ignoresWellSizedLies_data();
    void ignoresWellSizedLies();
    void deflatesToTheKnownStreams();
    void inflatesPiecewiseAndKeepsWhatWasBeforeAnError();
};

void tst_packet::writesEveryKindByteForByte_data()
{
    QTest::addColumn<Bytes>("packet");
    QTest::addColumn<Bytes>("expected");
    const quint16 zero[] = {0};
    const quint16 some[] = {0, 0x1FF, 0x1FF};
    const Bytes record = InformationRecord{1, "a.dat"}.write();

    QTest::newRow("information record") << Packet::makeData({0, 0}, 41, 0, record)
                                        << hex("A4D500000007000108B1290000"
                                               "0001612E646174012C");
    QTest::newRow("full data packet") << Packet::makeData({255, 0x1234}, 127, 0xFFFE,
        Bytes(250, '\x80')) << hex("A4D5FF1234FA0001FBB17FFFFE") + Bytes(250, '\x80') + hex("82E1");
    QTest::newRow("status request")
        << Packet::makeStatusRequest({1, 0}, 41, zero) << hex("A4D50100000D000102B22900010000FF66");
    QTest::newRow("status request about nothing")
        << Packet::makeStatusRequest({2, 0}, 0, {}) << hex("A4D50200000D000102B2000000FF3D");
    QTest::newRow("acknowledgement") << Packet::makeAcknowledgement({0, 0}, 41, zero, 1)
                                     << hex("A4D50000000D000104B32900010000FF68");
    QTest::newRow("acknowledgement by one who holds 300")
        << Packet::makeAcknowledgement({0, 0}, 41, some, 300)
        << hex("A4D5000000380001"
               "2FB329000300"
               "0001FF01FFFFC0");
    QTest::newRow("message") << Packet::makeMessage({3, 0}, "TAGGED", "hi")
                             << hex("A4D503000000130109B45441474745026869"
                                    "0188");
}

void tst_packet::writesEveryKindByteForByte()
{
    QFETCH(Bytes, packet);
    QFETCH(Bytes, expected);
    QCOMPARE(packet.toHex(), expected.toHex());
}

void tst_packet::readsWhatItWrites()
{
    const Bytes data = Packet::makeData({0, 0}, 41, 0, InformationRecord{513, "a.dat"}.write());
    const auto packet = Packet::read(data);
    QVERIFY(packet && packet->kind == Packet::Data && packet->id == 41 && packet->number == 0);
    const auto record = InformationRecord::read(packet->record);
    QVERIFY(record && record->count == 513);
    QCOMPARE(record->name, Bytes("a.dat"));

    const quint16 numbers[] = {7, 0xFF01};
    const Bytes request = Packet::makeStatusRequest({0, 0}, 3, numbers);
    const auto asked = Packet::read(request);
    QVERIFY(asked && asked->kind == Packet::StatusRequest && asked->id == 3);
    QCOMPARE(asked->entryCount(), 2);
    QCOMPARE(asked->entry(1), 0xFF01);
}

// A packet is whole without the last byte of its checksum, or without both if nothing reads them.
void tst_packet::ignoresEveryProperPrefix()
{
    const quint16 numbers[] = {1, 2, 3};
    const Bytes data = Packet::makeData({0, 0}, 41, 1, "payload");
    const Bytes request = Packet::makeStatusRequest({0, 0}, 41, numbers);
    for (qsizetype size = 0; size < data.size() - 1; ++size)
        QVERIFY2(!Packet::read(data.first(size)), qPrintable(QString::number(size)));
    for (qsizetype size = 0; size < request.size() - 2; ++size)
        QVERIFY2(!Packet::read(request.first(size)), qPrintable(QString::number(size)));
    QVERIFY(Packet::read(data.chopped(1)) && Packet::read(request.chopped(2)));
}

void tst_packet::ignoresWellSizedLies_data()
{
    QTest::addColumn<Bytes>("datagram");
    QTest::addColumn<bool>("isRead");
    const Bytes rest(300, '\x01');
    QTest::newRow("one marker is enough") << hex("A40000000000000008B1290001") + rest << true;
    QTest::newRow("so is the other") << hex("00D500000000000008B1290001") + rest << true;
    QTest::newRow("markers swapped") << hex("D5A400000000000008B1290001") + rest << false;
    QTest::newRow("record of 251 bytes") << hex("A4D5000000000000FBB1290001") + rest << true;
    QTest::newRow("record of 252 bytes") << hex("A4D5000000000000FCB1290001") + rest << false;
    QTest::newRow("65535 entries") << hex("A4D500000000000008B229FFFF") + rest << false;
    QTest::newRow("as many entries as fit") << hex("A4D500000000000008B3290096") + rest << true;
    QTest::newRow("message") << hex("A4D500000000000008B4290000") + rest << false;
}

void tst_packet::ignoresWellSizedLies()
{
    QFETCH(Bytes, datagram);
    QTEST(Packet::read(datagram).has_value(), "isRead");
}

void tst_packet::deflatesToTheKnownStreams()
{
    QCOMPARE(deflated(""), "");
    QCOMPARE(deflated("a").toHex(), "78da4b040000620062");
    const Bytes large = Bytes(300'000, 'x') + "end"; // several pieces in
    QCOMPARE(deflated(large), qCompress(large, 7).sliced(4));
}

void tst_packet::inflatesPiecewiseAndKeepsWhatWasBeforeAnError()
{
    Bytes content(500'000, '\0');
    QRandomGenerator(1).fillRange(reinterpret_cast<quint32 *>(content.data()), 50'000);
    const Bytes stream = qCompress(content, 7).sliced(4);
    QVERIFY(inflated(stream + "surplus", 250) == content);
    QVERIFY(inflated(stream, stream.size()) == content);

    const Bytes cut = inflated(stream.first(150'000), 250);
    QVERIFY(cut.size() > 100'000 && content.startsWith(cut));
    Bytes wrongSum = stream;
    wrongSum.back() = char(wrongSum.back() ^ 1);
    QVERIFY(inflated(wrongSum, 250) == content);
    QVERIFY(inflated("no stream", 250).isEmpty());
}

QTEST_GUILESS_MAIN(tst_packet)
#include "tst_packet.moc"
