#include "Packet.h"

#include <QTest>

using Bytes = QByteArray;

class tst_packet : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writesTheseBytes();
    void readsWhatItWritesWholeOrNotAtAll();
    void ignoresWellSizedLies();
};

// The test of the engine shows the bytes of the other packets.
void tst_packet::writesTheseBytes()
{
    const Bytes full(Packet::maxPayload, '\x80');
    QCOMPARE(Packet::makeData({255, 0x1234}, 127, 0xFFFE, full).toHex(),
        "a4d5ff1234fa0001fbb17ffffe" + full.toHex() + "82e1");
    const quint16 some[] = {0, 0x1FF, 0x1FF};
    QCOMPARE(Packet::makeAcknowledgement({0, 0}, 41, some, 300).toHex(),
        "a4d50000003800012fb3290003000001ff01ffffc0");
    QCOMPARE(Packet::makeMessage({3, 0}, "TAGGED", "hi").toHex(),
        "a4d503000000130109b454414747450268690188");
}

// A packet is whole without the last byte of its checksum, and a request without both.
void tst_packet::readsWhatItWritesWholeOrNotAtAll()
{
    const quint16 numbers[] = {7, 0xFF01, 3};
    const Bytes data =
        Packet::makeData({0, 0}, 41, 258, InformationRecord{513, "a.dat"}.write()).chopped(1);
    const Bytes request = Packet::makeStatusRequest({0, 0}, 3, numbers).chopped(2);
    for (const Bytes &whole : {data, request}) {
        for (qsizetype size = 0; size < whole.size(); ++size)
            QVERIFY2(!Packet::read(whole.first(size)), qPrintable(QString::number(size)));
    }
    const auto packet = Packet::read(data), asked = Packet::read(request);
    QVERIFY(packet && packet->kind == Packet::Data && packet->id == 41 && packet->number == 258);
    QVERIFY(asked && asked->kind == Packet::StatusRequest && asked->id == 3);
    QVERIFY(asked->entryCount() == 3 && asked->entry(1) == 0xFF01);
    Bytes acknowledgement = Packet::makeAcknowledgement({0, 0}, 3, numbers, 300);
    QCOMPARE(Packet::read(acknowledgement)->held, quint8(300));
    ++acknowledgement[5]; // one of the two fields that tell the count
    QVERIFY(!Packet::read(acknowledgement)->held);
    const auto record = InformationRecord::read(packet->record);
    QVERIFY(record && record->count == 513 && record->name == "a.dat");
    QVERIFY(!InformationRecord::read(packet->record.first(2)));
    QVERIFY(!InformationRecord::read(Bytes(2 + 98 + 1, 'n')));
}

void tst_packet::ignoresWellSizedLies()
{
    const auto isRead = [](const char *start) {
        return Packet::read(Bytes::fromHex(start) + Bytes(300, '\x01')).has_value();
    };
    QVERIFY2(isRead("A40000000000000008B1290001"), "one marker is enough");
    QVERIFY2(isRead("00D500000000000008B1290001"), "so is the other");
    QVERIFY2(!isRead("D5A400000000000008B1290001"), "markers swapped");
    QVERIFY2(!isRead("A4D5000000000000FCB1290001"), "record of 252 bytes");
    QVERIFY2(!isRead("A4D500000000000008B229FFFF"), "65535 entries");
    QVERIFY2(!isRead("A4D500000000000008B4290000"), "message");
}

QTEST_GUILESS_MAIN(tst_packet)
#include "tst_packet.moc"
