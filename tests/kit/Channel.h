#pragma once

#include "TTransferData.h"
#include "Workplace.h"

#include <QRandomGenerator>
#include <QTimerEvent>

using Bytes = QByteArray;

// Returns content that does not compress.
inline Bytes noise(qsizetype size, quint32 seed)
{
    Bytes bytes(size + 3, '\0');
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return bytes.first(size);
}

// An engine whose own timer never fires, with its files and all that it emits.
struct Side : TFileTransfer
{
    explicit Side(int quiet = 0, int interval = 86'400'000)
        : TFileTransfer(interval, quiet, nullptr)
    {
        connect(this, &Side::SendData, [this](Bytes &packet) { packets.append(packet); });
        connect(this, &Side::FileReceived, [this](const QString &name) { received.append(name); });
        connect(this, &Side::FileSended, [this] { ++delivered; });
        connect(this, &Side::FileForgotten, [this] { ++forgotten; });
        connect(this, &Side::FileRefused, [this](const QString &path) { refused.append(path); });
        connect(
            this, &Side::FileUnreadable, [this](const QString &path) { unreadable.append(path); });
        connect(this, &Side::Trouble, [this](const QString &line) { trouble.append(line); });
        SendPath(folder.makeFolder(QStringLiteral("in")) + u'/');
    }
    void open(const QString &name, const Bytes &content)
    {
        OpenFile(folder.writeFile(name, content));
    }
    void tick()
    {
        QTimerEvent event(0);
        timerEvent(&event);
    }
    void receive(Bytes datagram) { ReceiveData(datagram.data(), int(datagram.size())); }
    // Returns the packets emitted since the last call.
    QList<Bytes> take() { return std::exchange(packets, {}); }

    const Folder folder; // received files are in "in"
    QList<Bytes> packets;
    QStringList received, refused, unreadable, trouble;
    int delivered = 0, forgotten = 0;
};
