#pragma once

#include "TcpPeer.h"

#include <QByteArrayList>
#include <QRandomGenerator>
#include <QSet>
#include <QString>

#include <algorithm>
#include <numeric>

using namespace Qt::StringLiterals;

// Numbered records, and what a peer must have got of them.
class Oracle
{
public:
    explicit Oracle(qsizetype payloadBytes)
        : padding(payloadBytes, '.')
    {
        QRandomGenerator random(1); // what does not compress takes its time over UDP
        std::generate(padding.begin(), padding.end(), [&] { return char(random.generate()); });
    }

    // Hands a module the next records, in order.
    template <typename Module> void put(Module &module, int count)
    {
        for (int i = 0; i < count; ++i, ++accepted)
            module.record("error", numbered(accepted), numbered(accepted).toLatin1() + padding);
    }
    // Of the records handed over none behind this one counts: they are handed over again.
    void acceptedUpTo(int number) { accepted = number + 1; }
    // All that was accepted has arrived and is done with: none of it may come again.
    void settle() { settled = accepted; }

    // What a peer holds that has got so many records, each once.
    [[nodiscard]] QByteArrayList first(qsizetype count) const
    {
        QByteArrayList bodies;
        for (int number = 0; number < count; ++number)
            bodies.append(body(number));
        return bodies;
    }
    [[nodiscard]] int count() const { return accepted; }
    // The numbers below a limit that a peer has not got.
    [[nodiscard]] QList<int> missing(const QByteArrayList &bodies, int limit) const
    {
        const QSet<QByteArray> received(bodies.begin(), bodies.end());
        QList<int> numbers(limit);
        std::iota(numbers.begin(), numbers.end(), 0);
        numbers.removeIf([&](int number) { return received.contains(body(number)); });
        return numbers;
    }
    [[nodiscard]] bool areWhole(const QByteArrayList &bodies) const
    {
        return std::all_of(bodies.begin(), bodies.end(),
            [this](const QByteArray &received) { return received == body(numberIn(received)); });
    }
    [[nodiscard]] QByteArrayList all() const { return first(accepted); }

    [[nodiscard]] bool hasLast(const QByteArrayList &bodies) const
    {
        return bodies.contains(body(accepted - 1));
    }

    // Every record has arrived, whole. Each link carries them one after the other; only a new link
    // may go back, or leave out some. Returns what is wrong, or an empty text.
    [[nodiscard]] QString judge(const TcpPeer &peer, int mostDuplicates, int mostMissing = 0) const
    {
        int next = settled, previous = -1, duplicates = 0, missing = 0;
        for (qsizetype i = 0; i < peer.bodies.size(); ++i) {
            const int number = numberIn(peer.bodies.at(i));
            if (peer.bodies.at(i) != body(number))
                return u"record %1 is damaged"_s.arg(number);
            missing += std::max(number - next, 0);
            if (number < settled || missing > mostMissing
                || (number != previous + 1 && !peer.linkStarts.contains(i)))
                return u"record %1 follows %2"_s.arg(number).arg(previous);
            duplicates += number < next ? 1 : 0;
            next = std::max(next, number + 1);
            previous = number;
        }
        if (next != accepted)
            return u"record %1 of %2 has not arrived"_s.arg(next).arg(accepted);
        return duplicates <= mostDuplicates ? QString() : u"%1 duplicates"_s.arg(duplicates);
    }

    static int numberIn(const QByteArray &body) { return body.mid(5, 6).toInt(); }

private:
    static QString numbered(int number) { return u"%1"_s.arg(number, 6, 10, QChar(u'0')); }
    [[nodiscard]] QByteArray body(int number) const
    {
        return "error" + numbered(number).toLatin1() + padding;
    }

    QByteArray padding;
    int accepted = 0;
    int settled = 0;
};
