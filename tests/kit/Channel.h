#pragma once

#include "TTransferData.h"
#include "Workplace.h"

#include <QRandomGenerator>
#include <QTimerEvent>

#include <map>

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
    explicit Side(int quiet = 0)
        : TFileTransfer(86'400'000, quiet, nullptr)
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

// Two engines back to back. A channel that loses packets also doubles and delays some.
// Information records stay in order: a late one would make the receiver begin afresh.
struct Channel
{
    int loss = 0; // percent, each way
    Side left, right;

    // Ticks until both have reported so many deliveries. Returns the number of ticks, or 0 if that
    // takes too long.
    [[nodiscard]] int run(int leftFiles, int rightFiles)
    {
        int tick = 0;
        for (; left.delivered < leftFiles || right.delivered < rightFiles; ++tick) {
            if (tick == 1'000'000)
                return 0;
            carry(left, right, toRight, tick);
            carry(right, left, toLeft, tick);
        }
        return tick;
    }

private:
    using Way = std::multimap<int, Bytes>; // by the tick of arrival

    void carry(Side &from, Side &to, Way &way, int tick)
    {
        from.tick();
        for (const Bytes &packet : from.take()) {
            const Packet read = *Packet::read(packet);
            const bool mayWait = loss > 0 && (read.kind != Packet::Data || read.number > 0);
            int copies = random.bounded(100) >= loss;
            copies *= loss > 0 && random.bounded(10) == 0 ? 2 : 1;
            for (; copies > 0; --copies)
                way.emplace(tick + (mayWait ? random.bounded(7) : 0), packet);
        }
        while (!way.empty() && way.begin()->first <= tick)
            to.receive(way.extract(way.begin()).mapped());
    }

    QRandomGenerator random{1};
    Way toLeft, toRight;
};
