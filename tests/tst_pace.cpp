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
    int spare = 3; // packets that may be sent for nothing
};

// A simulated path, on which time passes from event to event.
struct Path
{
    // Runs until the condition holds, but for a minute at most.
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
        return PacedSender::Time(std::chrono::nanoseconds(qint64((1'000 + now) * 1e9)));
    }
    // Everything that a stalled host has to do waits until the stall ends; timers come first then.
    void atSender(double due, bool isTimer, const std::function<void()> &event)
    {
        const bool isStalled = due >= 0.3 && due < 0.3 + story.stall;
        events.emplace(isStalled ? 0.3 + story.stall + (isTimer ? 0 : 1e-6) : due, event);
    }
    // Carries a packet forth to the receiver or back to the sender, unless it is lost.
    void carry(int bytes, bool isForth, const std::function<void()> &arrive)
    {
        const bool isDown = now >= 1 && now < 1 + story.outage;
        if (isDown || random.generateDouble() < story.loss)
            return;
        const double delay = 0.025 + (now < 1 ? 0 : story.longer);
        if (!isForth)
            return atSender(now + delay, false, arrive);
        ++arrived;
        if (freeAt - now > 0.1)
            return void(++overflowed);
        freeAt = std::max(freeAt, now) + (story.megabits > 0 ? bytes * 8e-6 / story.megabits : 0);
        events.emplace(freeAt + delay, arrive);
    }

    const Story story;
    QRandomGenerator random{1};
    double now = 0, freeAt = 0; // of the bottleneck, which has the only queue
    int arrived = 0, overflowed = 0; // there
    std::multimap<double, std::function<void()>> events = {};
};

// A transfer over a path. The receiver is the set of the numbers that it holds.
struct Transfer
{
    Transfer(Path &used, double start)
        : path(used)
    {
        path.events.emplace(start, [this] {
            sender.begin(path.story.last, path.time());
            wake(0);
        });
    }
    bool isDone() const { return acknowledged.size() > size_t(path.story.last); }
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
            if (const auto *request = std::get_if<PacedSender::SendRequest>(&step)) {
                ask(request->numbers);
                continue;
            }
            const quint16 number = std::get<PacedSender::SendPacket>(step).number;
            path.carry(265, true, [this, number] { held.insert(number); });
            ++packets;
        }
    }
    // Requests and answers leave twice.
    void ask(const std::vector<quint16> &numbers)
    {
        longestRequest = std::max(longestRequest, numbers.size());
        const auto answer = [this, found = numbers]() mutable {
            std::erase_if(found, [this](quint16 number) { return !held.contains(number); });
            for (int copy = 0; copy < 2; ++copy)
                path.carry(15, false, [this, found] { take(found); });
        };
        for (int copy = 0; copy < 2; ++copy)
            path.carry(15 + 2 * int(numbers.size()), true, answer);
    }
    void take(const std::vector<quint16> &found)
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
    int packets = 0;
    size_t longestRequest = 0;
    std::set<quint16> held, acknowledged;
};

class tst_pace : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void runsAsFastAsThePathCarries();
    void twoShareABottleneck();
    void asksASilentPeerEverMoreSeldom();
};

void tst_pace::runsAsFastAsThePathCarries()
{
    // Nothing here depends on the machine, so the bounds leave little room.
    const std::pair<const char *, Story> rows[] = {{"clean", {.within = 0.41}},
        {"a tenth lost", {.loss = 0.1, .within = 0.53}},
        {"a third lost", {.loss = 0.33, .within = 0.8, .spare = 60}},
        {"half lost", {.loss = 0.5, .within = 3.4, .spare = 400}},
        {"1 Mb/s", {.megabits = 1, .within = 9.1, .spare = 20}}, // 8.7 s of packets alone
        {"50 Mb/s", {.megabits = 50, .last = 65'535, .within = 3.25}},
        {"10 Mb/s, 10 %",
            {.loss = 0.1, .megabits = 10, .last = 20'000, .within = 4.72, .spare = 50}},
        {"an outage", {.megabits = 10, .outage = 3, .last = 20'000, .within = 8.1, .spare = 760}},
        {"a longer path", {.megabits = 10, .longer = 0.015, .last = 20'000, .within = 5.35}},
        {"announced only", {.loss = 0.6, .last = 0, .within = 0.31}},
        {"a busy one", {.megabits = 10, .late = 0.02, .last = 20'000, .within = 4.82, .spare = 40}},
        {"a host that stalls", {.stall = 1, .last = 20'000, .within = 1.64}}};
    for (const auto &[name, story] : rows) {
        Path path{story};
        Transfer transfer(path, 0);
        path.runUntil([&] { return transfer.isDone(); });
        const auto text =
            QString::asprintf("%s: %g s, %d packets", name, path.now, transfer.packets);
        QVERIFY2(path.now < story.within, qPrintable(text));
        QVERIFY2(path.overflowed <= path.arrived * 0.05, name);
        QVERIFY2(transfer.packets * (1 - story.loss) < story.last + story.spare, qPrintable(text));
        QVERIFY2(transfer.longestRequest <= 25, name);
    }
}

void tst_pace::twoShareABottleneck()
{
    for (const double start : {0.0, 0.5, 1.0}) {
        for (const double megabits : {1, 10, 50}) {
            Path path{{.megabits = megabits, .last = int(std::min(megabits * 5'000, 65'000.0))}};
            Transfer one(path, 0), two(path, start);
            path.runUntil([&] { return path.now > start + 1; });
            const size_t before[] = {one.held.size(), two.held.size()};
            path.runUntil([&] { return one.isDone() || two.isDone(); });
            const double share =
                double(one.held.size() - before[0]) / double(two.held.size() - before[1]);
            const auto text =
                QString::asprintf("%g Mb/s, %g s apart, a share of %g", megabits, start, share);
            QVERIFY2(std::max(share, 1 / share) < (megabits < 50 ? 1.17 : 2), qPrintable(text));
            // A newcomer to a full queue takes some rounds to find its place.
            QVERIFY2(path.overflowed <= path.arrived * 0.08, qPrintable(text));
        }
    }
}

void tst_pace::asksASilentPeerEverMoreSeldom()
{
    using namespace std::chrono_literals;
    PacedSender sender;
    PacedSender::Time now{};
    QList<int> steps; // until each answer, which names one packet
    for (const auto time : {2ms, 5'000ms, 5'000ms, 5'000ms}) {
        if (steps.size() % 3 == 0) // a file, and the next one
            sender.begin(10, now);
        const quint16 number = quint16(steps.size());
        steps.append(0);
        for (const auto end = now + time; now < end;) {
            const PacedSender::Step step = sender.next(now);
            if (const auto *wait = std::get_if<PacedSender::WaitUntil>(&step))
                now = std::min(wait->time, PacedSender::Time(end));
            else
                ++steps.last();
        }
        sender.acknowledged({&number, 1}, now);
    }
    QCOMPARE(steps, QList<int>({3, 131, 129, 72}));
}

QTEST_GUILESS_MAIN(tst_pace)
#include "tst_pace.moc"
