#include "PacedSender.h"

#include <QRandomGenerator>
#include <QTest>

#include <functional>
#include <map>
#include <set>

// A path of 25 ms each way that exists in this program's own time only: random loss, a bottleneck
// with a queue of 100 ms, an outage. The receiver is a set of numbers.
class Path
{
public:
    double loss = 0, bitsPerSecond = 0; // 0 for no bottleneck
    double outageFrom = 0, outageTo = 0; // seconds

    // Seconds until packets 0 to last are all acknowledged; 0 if that takes more than a minute.
    double run(int last)
    {
        sender.begin(last, time());
        wake(0);
        while (acknowledged.size() <= size_t(last) && now < 60) {
            auto event = events.extract(events.begin());
            now = event.key();
            event.mapped()();
        }
        return now < 60 ? now : 0;
    }

    int packets = 0, arrived = 0, overflowed = 0;
    size_t longestRequest = 0;

private:
    using Numbers = std::vector<quint16>;

    PacedSender::Time time() const
    {
        const std::chrono::duration<double> passed(1'000 + now);
        return PacedSender::Time(std::chrono::duration_cast<PacedSender::Time::duration>(passed));
    }
    void carry(int bytes, bool isForth, const std::function<void()> &arrive)
    {
        if (random.generateDouble() < loss || (now >= outageFrom && now < outageTo))
            return;
        double leaves = now;
        if (isForth && bitsPerSecond > 0) {
            ++arrived;
            if (freeAt - now > 0.1) {
                ++overflowed;
                return;
            }
            leaves = freeAt = std::max(freeAt, now) + bytes * 8 / bitsPerSecond;
        }
        events.emplace(leaves + 0.025, arrive);
    }
    void wake(double after)
    {
        nextWake = now + after;
        events.emplace(nextWake, [this, due = nextWake] {
            if (due == nextWake)
                pump();
        });
    }
    void pump()
    {
        for (;;) {
            const PacedSender::Step step = sender.next(time());
            if (const auto *wait = std::get_if<PacedSender::WaitUntil>(&step))
                return wake(std::chrono::duration<double>(wait->time - time()).count());
            if (const auto *request = std::get_if<PacedSender::SendRequest>(&step))
                ask(request->numbers);
            else
                send(std::get<PacedSender::SendPacket>(step).number);
        }
    }
    void send(quint16 number)
    {
        ++packets;
        carry(265, true, [this, number] { held.insert(number); });
    }
    void ask(const Numbers &numbers)
    {
        longestRequest = std::max(longestRequest, numbers.size());
        for (int copy = 0; copy < 2; ++copy)
            carry(15 + 2 * int(numbers.size()), true, [this, numbers] {
                Numbers answer;
                std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(answer),
                    [this](quint16 number) { return held.contains(number); });
                for (int reply = 0; reply < 2; ++reply)
                    carry(15, false, [this, answer] { take(answer); });
            });
    }
    void take(const Numbers &answer)
    {
        acknowledged.insert(answer.begin(), answer.end());
        sender.acknowledged(answer, time());
        if (nextWake > now + 0.001)
            wake(0.001);
    }

    PacedSender sender;
    QRandomGenerator random{1};
    std::multimap<double, std::function<void()>> events;
    std::set<quint16> held, acknowledged;
    double now = 0, nextWake = 0, freeAt = 0;
};

class tst_pace : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void runsAsFastAsThePathCarries_data();
    void runsAsFastAsThePathCarries();
};

void tst_pace::runsAsFastAsThePathCarries_data()
{
    QTest::addColumn<double>("loss");
    QTest::addColumn<double>("megabits");
    QTest::addColumn<double>("outage"); // seconds
    QTest::addColumn<int>("last");
    QTest::addColumn<double>("within"); // seconds
    QTest::newRow("clean") << 0.0 << 0.0 << 0.0 << 4'000 << 0.5;
    QTest::newRow("a tenth lost") << 0.1 << 0.0 << 0.0 << 4'000 << 0.8;
    QTest::newRow("a third lost") << 0.33 << 0.0 << 0.0 << 4'000 << 1.6;
    QTest::newRow("half lost") << 0.5 << 0.0 << 0.0 << 4'000 << 4.0;
    QTest::newRow("1 Mb/s") << 0.0 << 1.0 << 0.0 << 4'000 << 9.7; // 8.7 s of packets alone
    QTest::newRow("10 Mb/s") << 0.0 << 10.0 << 0.0 << 20'000 << 5.0;
    QTest::newRow("50 Mb/s") << 0.0 << 50.0 << 0.0 << 65'535 << 3.7;
    QTest::newRow("10 Mb/s, a tenth lost") << 0.1 << 10.0 << 0.0 << 20'000 << 6.5;
    QTest::newRow("an outage") << 0.0 << 10.0 << 3.0 << 20'000 << 9.0;
    QTest::newRow("announced only") << 0.33 << 0.0 << 0.0 << 0 << 1.0;
}

void tst_pace::runsAsFastAsThePathCarries()
{
    QFETCH(double, loss);
    QFETCH(double, megabits);
    QFETCH(double, outage);
    QFETCH(int, last);
    QFETCH(double, within);
    Path path;
    path.loss = loss;
    path.bitsPerSecond = megabits * 1e6;
    path.outageFrom = 1;
    path.outageTo = 1 + outage;
    const double taken = path.run(last);
    QVERIFY2(taken > 0 && taken < within, qPrintable(QString::number(taken)));
    QVERIFY2(path.overflowed <= path.arrived * 0.05, qPrintable(QString::number(path.overflowed)));
    QVERIFY2(outage > 0 || path.packets < (last + 10) / (1 - loss) * 1.15,
        qPrintable(QString::number(path.packets)));
    QVERIFY(path.longestRequest <= 25);
}

QTEST_GUILESS_MAIN(tst_pace)
#include "tst_pace.moc"
