#include "PacedSender.h"

#include <QRandomGenerator>
#include <QTest>

#include <functional>
#include <map>
#include <set>

// What happens on a path of 25 ms each way. Times are in seconds.
struct Story
{
    double loss = 0, megabits = 0; // 0 for no bottleneck; else one with a queue of 100 ms
    double outage = 0; // begins after a second; nothing passes
    double stall = 0; // begins after 0.3 seconds; the sender's host does nothing
    double longer = 0; // each way, from a second on
    double late = 0; // by which the sender's timer comes late at most
    int last = 4'000; // number of the last packet
    double within = 0; // seconds that the transfer may take
};

// The path exists in this program's own time only.
class Path
{
public:
    explicit Path(const Story &told)
        : story(told)
    {
    }
    // Until the condition holds, a minute at most.
    void runUntil(const std::function<bool()> &isOver)
    {
        while (!isOver() && now < 60) {
            auto event = events.extract(events.begin());
            now = event.key();
            event.mapped()();
        }
    }
    PacedSender::Time time() const
    {
        const std::chrono::duration<double> passed(1'000 + now);
        return PacedSender::Time(std::chrono::duration_cast<PacedSender::Time::duration>(passed));
    }
    void at(double due, const std::function<void()> &event) { events.emplace(due, event); }
    // What a stalled host does is done behind the stall, timers first.
    void atSender(double due, bool isTimer, const std::function<void()> &event)
    {
        const bool isStalled = due >= 0.3 && due < 0.3 + story.stall;
        at(isStalled ? 0.3 + story.stall + (isTimer ? 0 : 1e-6) : due, event);
    }
    // When it arrives; 0 if it is lost.
    double carry(int bytes, bool isForth)
    {
        const bool isDown = now >= 1 && now < 1 + story.outage;
        if (isDown || random.generateDouble() < story.loss)
            return 0;
        const double delay = 0.025 + (now < 1 ? 0 : story.longer);
        if (!isForth || story.megabits == 0)
            return now + delay;
        ++arrived;
        if (freeAt - now > 0.1) {
            ++overflowed;
            return 0;
        }
        freeAt = std::max(freeAt, now) + bytes * 8e-6 / story.megabits;
        return freeAt + delay;
    }

    const Story story;
    QRandomGenerator random{1};
    double now = 0;
    int arrived = 0, overflowed = 0;

private:
    std::multimap<double, std::function<void()>> events;
    double freeAt = 0;
};

// A transfer over a path. The receiver is the set of the numbers that it holds.
class Transfer
{
public:
    Transfer(Path &used, double start)
        : path(used)
    {
        path.at(start, [this] {
            sender.begin(path.story.last, path.time());
            wake(0);
        });
    }
    bool isDone() const { return acknowledged.size() > size_t(path.story.last); }

    int packets = 0;
    size_t longestRequest = 0;
    std::set<quint16> held, acknowledged;

private:
    using Numbers = std::vector<quint16>;

    void wake(double after)
    {
        nextWake = path.now + std::max(after, 2e-6); // after what is due now
        const double late = path.random.generateDouble() * path.story.late;
        path.atSender(nextWake + late, true, [this, due = nextWake] {
            if (due == nextWake && !isDone())
                pump();
        });
    }
    void pump()
    {
        for (;;) {
            const PacedSender::Step step = sender.next(path.time());
            if (const auto *wait = std::get_if<PacedSender::WaitUntil>(&step))
                return wake(std::chrono::duration<double>(wait->time - path.time()).count());
            if (const auto *request = std::get_if<PacedSender::SendRequest>(&step))
                ask(request->numbers);
            else
                send(std::get<PacedSender::SendPacket>(step).number);
        }
    }
    void send(quint16 number)
    {
        ++packets;
        if (const double arrival = path.carry(265, true); arrival > 0)
            path.at(arrival, [this, number] { held.insert(number); });
    }
    void ask(const Numbers &numbers)
    {
        longestRequest = std::max(longestRequest, numbers.size());
        for (int copy = 0; copy < 2; ++copy) {
            if (const double arrival = path.carry(15 + 2 * int(numbers.size()), true); arrival > 0)
                path.at(arrival, [this, numbers] { answer(numbers); });
        }
    }
    void answer(const Numbers &numbers)
    {
        Numbers found;
        std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(found),
            [this](quint16 number) { return held.contains(number); });
        for (int copy = 0; copy < 2; ++copy) {
            if (const double arrival = path.carry(15, false); arrival > 0)
                path.atSender(arrival, false, [this, found] { take(found); });
        }
    }
    void take(const Numbers &found)
    {
        acknowledged.insert(found.begin(), found.end());
        if (isDone())
            return;
        sender.acknowledged(found, path.time());
        if (nextWake > path.now + 0.001)
            wake(0.001);
    }

    Path &path;
    PacedSender sender;
    double nextWake = 0;
};

class tst_pace : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void runsAsFastAsThePathCarries_data();
    void runsAsFastAsThePathCarries();
    void twoShareABottleneck_data();
    void twoShareABottleneck();
};

void tst_pace::runsAsFastAsThePathCarries_data()
{
    QTest::addColumn<Story>("story");
    QTest::newRow("clean") << Story{.within = 0.5};
    QTest::newRow("a tenth lost") << Story{.loss = 0.1, .within = 0.8};
    QTest::newRow("a third lost") << Story{.loss = 0.33, .within = 1.6};
    QTest::newRow("half lost") << Story{.loss = 0.5, .within = 4};
    QTest::newRow("1 Mb/s") << Story{.megabits = 1, .within = 9.7}; // 8.7 s of packets alone
    QTest::newRow("10 Mb/s") << Story{.megabits = 10, .last = 20'000, .within = 5};
    QTest::newRow("50 Mb/s") << Story{.megabits = 50, .last = 65'535, .within = 3.7};
    QTest::newRow("10 Mb/s, a tenth lost")
        << Story{.loss = 0.1, .megabits = 10, .last = 20'000, .within = 6.5};
    QTest::newRow("an outage") << Story{.megabits = 10, .outage = 3, .last = 20'000, .within = 9};
    QTest::newRow("a path that becomes longer")
        << Story{.megabits = 10, .longer = 0.015, .last = 20'000, .within = 6};
    QTest::newRow("announced only") << Story{.loss = 0.6, .last = 0, .within = 1.5};
    QTest::newRow("a busy host") << Story{
        .megabits = 10, .late = 0.02, .last = 20'000, .within = 5};
    QTest::newRow("a host that stalls") << Story{.stall = 1, .last = 20'000, .within = 1.7};
}

void tst_pace::runsAsFastAsThePathCarries()
{
    QFETCH(Story, story);
    Path path(story);
    Transfer transfer(path, 0);
    path.runUntil([&] { return transfer.isDone(); });
    QVERIFY2(path.now < story.within, qPrintable(QString::number(path.now)));
    QVERIFY2(path.overflowed <= path.arrived * 0.05, qPrintable(QString::number(path.overflowed)));
    QVERIFY2(story.outage > 0 || transfer.packets < (story.last + 10) / (1 - story.loss) * 1.1,
        qPrintable(QString::number(transfer.packets)));
    QVERIFY(transfer.longestRequest <= 25);
}

void tst_pace::twoShareABottleneck_data()
{
    QTest::addColumn<double>("megabits");
    QTest::addColumn<double>("start"); // of the second one; seconds
    for (const double megabits : {1, 10, 50}) {
        for (const double start : {0.0, 0.5, 1.0})
            QTest::addRow("%g Mb/s, %g s apart", megabits, start) << megabits << start;
    }
}

void tst_pace::twoShareABottleneck()
{
    QFETCH(double, megabits);
    QFETCH(double, start);
    Path path({.megabits = megabits, .last = int(std::min(megabits * 5'000, 65'000.0))});
    Transfer one(path, 0), two(path, start);
    path.runUntil([&] { return path.now > start + 1; });
    const size_t before[] = {one.held.size(), two.held.size()};
    path.runUntil([&] { return one.isDone() || two.isDone(); });
    const double parts[] = {
        double(one.held.size() - before[0]), double(two.held.size() - before[1])};
    const double ratio = std::max(parts[0], parts[1]) / std::min(parts[0], parts[1]);
    QVERIFY2(ratio <= 2, qPrintable(QString::number(ratio)));
    // A newcomer to a full queue takes some rounds to find its place.
    QVERIFY2(path.overflowed <= path.arrived * 0.08, qPrintable(QString::number(path.overflowed)));
}

QTEST_GUILESS_MAIN(tst_pace)
#include "tst_pace.moc"
