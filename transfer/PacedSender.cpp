#include "PacedSender.h"

#include <algorithm>
#include <cmath>
#include <utility>

using namespace std::chrono_literals;
using Seconds = RateControl::Seconds;
using Time = RateControl::Time;

namespace {

constexpr size_t maxListed = 25; // numbers in a request
constexpr double requestBytes = 2 * (15 + 28); // both copies with their headers, without numbers
constexpr double numberBytes = 2 * 2; // one number in both copies
constexpr int announceCopies = 2; // of the information record before each request about it
constexpr Seconds announceInterval{0.1}; // grows by half each time
constexpr Seconds longestInterval{0.5};
constexpr Seconds pathIsFreshFor{10};
constexpr size_t requestsKept = 1'024; // answers to older ones are no longer recognised
constexpr quint32 overtaken = 2; // requests; if one that much later is answered, this one is not
constexpr int maxUnanswered = 2; // requests about a packet before it counts as lost

constexpr int tailPackets = 25; // fit into one request
constexpr int maxTailTries = 3;
constexpr Seconds leastTailPause{0.005};
constexpr double clearLoss = 0.02;

constexpr Seconds heldUp{0.005}; // if we wake up later than this, missing answers may be our fault

// While no answers arrive: packets in each try, and the longest time between two tries.
constexpr int silentPackets = 4;
constexpr Seconds longestTry{0.25};
constexpr double silentTimeouts = 4;
constexpr Seconds leastSilence{0.25};

Time after(Time time, Seconds wait)
{
    return time + std::chrono::duration_cast<Time::duration>(wait);
}

} // namespace

void PacedSender::begin(int last, Time now)
{
    knowsPath = knowsPath && now - lastAnswer < pathIsFreshFor;
    if (!knowsPath)
        rate.restart(now, std::nullopt);
    entries.assign(size_t(last) + 1, {});
    nextUnsent = 1;
    flying = doubtful = 0;
    lost.clear();
    unlisted.clear();
    askAgain.clear();
    requests.clear();
    firstOpen = 0;
    wakeUpDue.reset();
    isAnnounced = false;
    announceSteps = announceRequests = 0;
    tailTries = 0;
    isSilent = false;
}

PacedSender::Step PacedSender::next(Time now)
{
    if (const auto due = std::exchange(wakeUpDue, std::nullopt)) {
        rate.woke(now - *due);
        if (now - *due > heldUp)
            return WaitUntil{now}; // read answers that may be waiting first
    }
    Step step = decide(now);
    const auto *wait = std::get_if<WaitUntil>(&step);
    if (wait)
        wakeUpDue = wait->time;
    return step;
}

PacedSender::Step PacedSender::decide(Time now)
{
    if (!isAnnounced)
        return announce(now);
    closeOldRequests(now);
    fallSilent(now);
    if (isAskDue())
        return ask(now);
    if (isSilent && flying >= silentPackets)
        return WaitUntil{silentUntil};
    if (!isSilent && !rate.mayLeave(inFlight(), now)) {
        if (rate.isFull(inFlight()))
            return unlisted.empty() ? waitForAnswers(now) : ask(now);
        return WaitUntil{rate.nextChance(now)};
    }
    if (const int number = choose(); number > 0)
        return sendPacket(number);
    rate.starve(inFlight());
    if (!unlisted.empty() || !askAgain.empty())
        return ask(now);
    tryTheTail(now);
    return lost.empty() && askAgain.empty() ? waitForAnswers(now) : decide(now);
}

// --- announcing ---

// Sends the information record twice and a request about it, then repeats both after a pause.
PacedSender::Step PacedSender::announce(Time now)
{
    if (announceSteps > announceCopies) {
        if (now < nextAnnouncement)
            return WaitUntil{nextAnnouncement};
        announceSteps = 0;
    }
    if (announceSteps++ < announceCopies)
        return SendPacket{0};
    const double factor = std::min(std::pow(1.5, announceRequests), 10.0);
    const Seconds pause = knowsPath ? rate.timeout() : announceInterval;
    nextAnnouncement = after(now, std::min(pause * factor, std::max(longestInterval, pause)));
    ++announceRequests;
    lastRequestTime = now;
    return SendRequest{std::vector<quint16>(announceCopies, 0)};
}

void PacedSender::takeAnnounced(Time now)
{
    isAnnounced = true;
    enter(State::Held, 0);
    if (!knowsPath) {
        const bool isCertain = announceRequests == 1;
        rate.restart(now, isCertain ? std::optional<Seconds>(now - lastRequestTime) : std::nullopt);
    }
    knowsPath = true;
}

// --- packets and requests ---

// Chooses the packet to send next. Returns 0 if all have been sent and none is known to be lost.
int PacedSender::choose()
{
    while (!lost.empty()) {
        const quint16 number = lost.front();
        lost.pop_front();
        if (entries[number].state == State::Lost)
            return number;
    }
    while (nextUnsent < int(entries.size())) {
        const int number = nextUnsent++;
        if (entries[size_t(number)].state == State::Unsent)
            return number;
    }
    return 0;
}

PacedSender::Step PacedSender::sendPacket(int number)
{
    Entry &entry = entries[size_t(number)];
    enter(State::Flying, quint16(number));
    entry.unansweredRequests = 0;
    entry.lastRequest = 0;
    unlisted.push_back(quint16(number));
    rate.left(RateControl::packetBytes);
    return SendPacket{quint16(number)};
}

bool PacedSender::isAskDue() const
{
    return int(unlisted.size()) >= rate.groupSize() || askAgain.size() >= maxListed
        || (isSilent && int(unlisted.size()) >= silentPackets);
}

// Makes a request. Lists the packets to ask about again first, because they were sent earlier.
PacedSender::Step PacedSender::ask(Time now)
{
    Request request;
    request.number = ++lastRequestNumber;
    request.departure = rate.departure(now);
    const auto list = [&](quint16 number) {
        Entry &entry = entries[number];
        if (!isOpen(number) || entry.lastRequest == request.number)
            return;
        entry.isRelisted = entry.isRelisted || entry.lastRequest != 0;
        entry.lastRequest = request.number;
        request.numbers.push_back(number);
    };
    while (!askAgain.empty() && request.numbers.size() + unlisted.size() < maxListed) {
        list(askAgain.front());
        askAgain.pop_front();
    }
    for (const quint16 number : unlisted)
        list(number);
    unlisted.clear();
    lastRequestTime = now;
    rate.left(requestBytes + numberBytes * double(request.numbers.size()));
    requests.push_back(request);
    while (requests.size() > requestsKept) {
        if (firstOpen == 0)
            closeUnanswered(requests.front());
        requests.pop_front();
        firstOpen -= firstOpen > 0;
    }
    return SendRequest{std::move(request.numbers)};
}

PacedSender::Step PacedSender::waitForAnswers(Time now)
{
    Time until = after(now, rate.timeout());
    if (firstOpen < requests.size())
        until = std::min(until, after(requests[firstOpen].departure.left, rate.timeout()));
    if (flying + doubtful <= tailPackets && tailTries < maxTailTries)
        until =
            std::min(until, after(lastRequestTime, std::max(rate.roundTrip() / 3, leastTailPause)));
    return WaitUntil{std::max(until, after(now, RateControl::quantum))};
}

// --- answers ---

void PacedSender::acknowledged(std::span<const quint16> numbers, Time now)
{
    if (numbers.empty())
        return;
    lastAnswer = now;
    if (wakeUpDue)
        wakeUpDue = std::min<Time>(*wakeUpDue, now + reaction);
    if (!isAnnounced) {
        if (std::find(numbers.begin(), numbers.end(), 0) != numbers.end())
            takeAnnounced(now);
        return;
    }
    if (isSilent)
        wakeUp(now);
    bool isCertain = false;
    Request *request = findRequest(numbers, isCertain);
    int news = 0;
    for (const quint16 number : numbers) {
        if (number >= entries.size() || entries[number].state == State::Held)
            continue;
        enter(State::Held, number);
        ++news;
    }
    if (news > 0)
        tailTries = 0;
    const double newBytes = news * RateControl::packetBytes;
    if (request)
        takeAnswer(*request, newBytes, isCertain, now);
    else
        rate.add(newBytes);
}

void PacedSender::enter(State state, quint16 number)
{
    State &current = entries[number].state;
    flying += (state == State::Flying) - (current == State::Flying);
    doubtful += (state == State::Doubtful) - (current == State::Doubtful);
    current = state;
}

void PacedSender::lose(quint16 number)
{
    enter(State::Lost, number);
    lost.push_back(number);
}

// Returns whether the packet was sent and its fate is not yet known.
bool PacedSender::isOpen(quint16 number) const
{
    const State state = entries[number].state;
    return state == State::Flying || state == State::Doubtful;
}

bool PacedSender::isOpenIn(const Request &request, quint16 number) const
{
    return isOpen(number) && entries[number].lastRequest == request.number;
}

// Finds the request that an answer belongs to, which the answer itself does not say. That request
// lists all numbers of the answer, and is the last one to list those that were not listed again.
// isCertain is set if one of the numbers was listed by this request only.
PacedSender::Request *PacedSender::findRequest(std::span<const quint16> numbers, bool &isCertain)
{
    quint32 wanted = 0;
    for (const quint16 number : numbers) {
        if (number >= entries.size() || entries[number].lastRequest == 0)
            continue;
        const quint32 candidate = entries[number].lastRequest;
        if (wanted == 0 || candidate < wanted)
            wanted = candidate;
    }
    if (wanted == 0 || requests.empty() || wanted < requests.front().number)
        return nullptr;
    isCertain = std::any_of(numbers.begin(), numbers.end(), [&](quint16 number) {
        return number < entries.size() && entries[number].lastRequest == wanted
            && !entries[number].isRelisted;
    });
    Request &request = requests[wanted - requests.front().number];
    return request.isClosed ? nullptr : &request;
}

// Treats listed packets that the answer does not name as lost. If the answer may belong to an
// earlier request, this holds only for packets that an earlier request had listed too.
void PacedSender::takeAnswer(Request &request, double newBytes, bool isCertain, Time now)
{
    RateControl::Answer answer;
    answer.delivered = newBytes + requestBytes + numberBytes * double(request.numbers.size());
    for (const quint16 number : request.numbers) {
        const bool isNamedBefore = entries[number].isRelisted;
        const bool isLost = isOpenIn(request, number);
        answer.arrived += !isNamedBefore && !isLost;
        answer.lost += !isNamedBefore && isLost;
        if (isLost && (isCertain || isNamedBefore))
            lose(number);
    }
    if (!isCertain)
        return rate.add(newBytes);
    request.isClosed = true;
    rate.answered(request.departure, answer, inFlight(), now);
    while (firstOpen < requests.size()
        && (requests[firstOpen].isClosed
            || requests[firstOpen].number + overtaken <= request.number))
        closeUnanswered(requests[firstOpen++]);
}

void PacedSender::closeUnanswered(Request &request)
{
    if (request.isClosed)
        return;
    request.isClosed = true;
    for (const quint16 number : request.numbers) {
        if (!isOpenIn(request, number))
            continue;
        if (++entries[number].unansweredRequests >= maxUnanswered) {
            lose(number);
            continue;
        }
        enter(State::Doubtful, number);
        askAgain.push_back(number);
    }
}

void PacedSender::closeOldRequests(Time now)
{
    while (firstOpen < requests.size()) {
        Request &request = requests[firstOpen];
        if (!request.isClosed && now - request.departure.left < rate.timeout())
            return;
        if (!request.isClosed)
            rate.timedOut();
        closeUnanswered(request);
        ++firstOpen;
    }
}

// --- the end of a file, and of the path ---

// Called when nothing else is left to send. Asks about the last few packets again, or sends them
// again if the path loses many, instead of waiting a round trip for each loss.
void PacedSender::tryTheTail(Time now)
{
    const Seconds pause = std::max(rate.roundTrip() / 3, leastTailPause);
    const int open = flying + doubtful;
    if (open == 0 || open > tailPackets || tailTries >= maxTailTries
        || now - lastRequestTime < pause)
        return;
    ++tailTries;
    for (size_t number = 1; number < entries.size(); ++number) {
        if (!isOpen(quint16(number)))
            continue;
        if (rate.loss() > clearLoss)
            lose(quint16(number));
        else
            askAgain.push_back(quint16(number));
    }
}

void PacedSender::fallSilent(Time now)
{
    if (isSilent ? now < silentUntil
                 : flying + doubtful == 0
                || now - lastAnswer < std::max(silentTimeouts * rate.leastTimeout(), leastSilence))
        return;
    isSilent = true;
    const Seconds least = rate.leastTimeout();
    const Seconds pause = 2 * least * std::pow(2, std::min(silentRounds++, 10));
    silentUntil = after(now, std::min(pause, std::max(longestTry, least)));
    for (Request &request : requests)
        request.isClosed = true;
    firstOpen = requests.size();
    unlisted.clear();
    askAgain.clear();
    std::vector<quint16> again;
    for (size_t number = 1; number < entries.size(); ++number) {
        if (!isOpen(quint16(number)))
            continue;
        enter(State::Lost, quint16(number));
        again.push_back(quint16(number));
    }
    lost.insert(lost.begin(), again.begin(), again.end());
}

void PacedSender::wakeUp(Time now)
{
    isSilent = false;
    silentRounds = 0;
    rate.restart(now, rate.roundTrip());
}
