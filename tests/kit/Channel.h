#pragma once

#include "TTransferData.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTimerEvent>

#include <chrono>
#include <functional>
#include <map>

using Bytes = QByteArray;

// Content that does not compress.
inline Bytes noise(qsizetype size, quint32 seed)
{
    Bytes bytes(size + 3, '\0');
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return bytes.first(size);
}

// The stream that a sender makes of a content.
inline Bytes compressed(const Bytes &content)
{
    return qCompress(content, 7).sliced(4);
}

inline bool writeFile(const QString &path, const Bytes &content)
{
    QFile file(path);
    return file.open(QFile::WriteOnly) && file.write(content) == content.size();
}

// What a file holds, and a text that says so if it cannot be read.
inline Bytes contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : Bytes("(no file)");
}

// An engine whose own timer never fires, with a record of all that it reports.
struct Side
{
    explicit Side(int quietTicks = 0)
        : engine(
            int(std::chrono::milliseconds(std::chrono::hours(24)).count()), quietTicks, nullptr)
    {
        using Engine = TFileTransfer;
        const auto on = [this](auto signal, auto slot) {
            QObject::connect(&engine, signal, &engine, slot);
        };
        on(&Engine::SendData, [this](Bytes &packet) { packets.append(packet); });
        on(&Engine::FileReceived, [this](const QString &name) { received.append(name); });
        on(&Engine::FileSended, [this] { ++sended; });
        on(&Engine::FileRefused, [this](const QString &path) { refused.append(path); });
    }
    void tick()
    {
        QTimerEvent event(0);
        engine.timerEvent(&event);
    }
    bool receive(Bytes datagram)
    {
        return engine.ReceiveData(datagram.data(), int(datagram.size()));
    }
    // What has been emitted since the last call.
    QList<Bytes> take() { return std::exchange(packets, {}); }

    TFileTransfer engine;
    QList<Bytes> packets;
    QStringList received, refused;
    int sended = 0;
};

// Two engines back to back. Packets are lost, doubled and, if they carry data, delayed by some
// ticks. The others stay in order: a late information record would start the gathering afresh.
struct Channel
{
    double loss = 0; // share of the packets, each way
    double doubled = 0;
    int maxDelay = 0; // ticks
    QRandomGenerator random{1};

    Side left, right;
    std::multimap<int, Bytes> toLeft, toRight; // by the tick of their arrival
    int ticks = 0;
    qint64 datagrams = 0; // sent by both

    // Until both have reported so many deliveries; false if that takes too long.
    bool run(int leftFiles, int rightFiles, int maxTicks = 1'000'000)
    {
        while (left.sended < leftFiles || right.sended < rightFiles) {
            if (++ticks > maxTicks)
                return false;
            step(left, right, toRight);
            step(right, left, toLeft);
        }
        return true;
    }

private:
    void step(Side &from, Side &to, std::multimap<int, Bytes> &way)
    {
        from.tick();
        carry(from, way);
        while (!way.empty() && way.begin()->first <= ticks)
            to.receive(way.extract(way.begin()).mapped());
    }
    void carry(Side &from, std::multimap<int, Bytes> &way)
    {
        for (const Bytes &packet : from.take()) {
            ++datagrams;
            const auto read = Packet::read(packet);
            const bool mayWait = maxDelay > 0 && read && read->kind == Packet::Data && read->number;
            for (int copies = random.generateDouble() < doubled ? 2 : 1; copies > 0; --copies) {
                if (random.generateDouble() >= loss)
                    way.emplace(ticks + (mayWait ? random.bounded(maxDelay) : 0), packet);
            }
        }
    }
};
