#include "Packet.h"

#include <QTest>

using Bytes = QByteArray;

namespace {

Bytes hex(const char *text)
{
    return Bytes::fromHex(text);
}

} // namespace

class tst_packet : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writesEveryKindByteForByte_data();
    void writesEveryKindByteForByte();
    void readsWhatItWritesWholeOrNotAtAll();
    void ignoresWellSizedLies_data();
    void ignoresWellSizedLies();
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

// A packet is whole without the last byte of its checksum, or without both if nothing reads them.
void tst_packet::readsWhatItWritesWholeOrNotAtAll()
{
    const quint16 numbers[] = {7, 0xFF01, 3};
    const Bytes data = Packet::makeData({0, 0}, 41, 258, InformationRecord{513, "a.dat"}.write());
    const Bytes request = Packet::makeStatusRequest({0, 0}, 3, numbers);
    for (qsizetype size = 0; size < data.size() - 1; ++size)
        QVERIFY2(!Packet::read(data.first(size)), qPrintable(QString::number(size)));
    for (qsizetype size = 0; size < request.size() - 2; ++size)
        QVERIFY2(!Packet::read(request.first(size)), qPrintable(QString::number(size)));

    const auto packet = Packet::read(QByteArrayView(data).chopped(1));
    const auto asked = Packet::read(QByteArrayView(request).chopped(2));
    QVERIFY(packet && packet->kind == Packet::Data && packet->id == 41 && packet->number == 258);
    QVERIFY(asked && asked->kind == Packet::StatusRequest && asked->id == 3);
    QVERIFY(asked->entryCount() == 3 && asked->entry(1) == 0xFF01);
    const auto record = InformationRecord::read(packet->record);
    QVERIFY(record && record->count == 513 && record->name == "a.dat");
    QVERIFY(!InformationRecord::read(packet->record.first(2)));
}

void tst_packet::ignoresWellSizedLies_data()
{
    QTest::addColumn<Bytes>("datagram");
    QTest::addColumn<bool>("isRead");
    const Bytes rest(300, '\x01');
    QTest::newRow("one marker is enough") << hex("A40000000000000008B1290001") + rest << true;
    QTest::newRow("so is the other") << hex("00D500000000000008B1290001") + rest << true;
    QTest::newRow("markers swapped") << hex("D5A400000000000008B1290001") + rest << false;
    QTest::newRow("record of 252 bytes") << hex("A4D5000000000000FCB1290001") + rest << false;
    QTest::newRow("65535 entries") << hex("A4D500000000000008B229FFFF") + rest << false;
    QTest::newRow("message") << hex("A4D500000000000008B4290000") + rest << false;
}

void tst_packet::ignoresWellSizedLies()
{
    QFETCH(Bytes, datagram);
    QTEST(Packet::read(datagram).has_value(), "isRead");
}

QTEST_GUILESS_MAIN(tst_packet)
#include "tst_packet.moc"
