#include "PacedSender.h"

#include "Packet.h"

#include <algorithm>
#include <cmath>
#include <utility>

using namespace std::chrono_literals;
using Seconds = RateControl::Seconds;
using Time = RateControl::Time;

namespace {

constexpr size_t maxListed = size_t(Packet::maxListed);
constexpr double requestBytes = 2 * (15 + 28); // both copies with their headers, without numbers
constexpr double numberBytes = 2 * 2; // one number in both copies
constexpr int announceCopies = 2;
constexpr Seconds firstAnnounceInterval{0.1};
constexpr double announceIntervalGrowth = 1.5, maxAnnounceIntervalFactor = 10;
constexpr Seconds longestAnnounceInterval{0.5};
constexpr Seconds pathIsFreshFor{10};
constexpr size_t requestsKept = 1'024; // answers to older ones are no longer recognised
// Requests. Once a request is answered that was made so much later, no answer is expected any more.
constexpr quint32 overtakenAfter = 2;
constexpr int unansweredUntilLost = 2; // requests

constexpr int tailPackets = int(Packet::maxListed); // one request can list them all
constexpr int maxTailRetries = 3;
constexpr Seconds leastTailPause{0.005};
constexpr double highLoss = 0.02;

// If we wake up later than this, answers may have arrived that are not read yet.
constexpr Seconds lateWakeUp{0.005};

// While no answers arrive, a few packets probe the path now and then.
constexpr int probePackets = 4;
constexpr Seconds longestProbeInterval{0.25};
constexpr double timeoutsUntilSilent = 4;
constexpr Seconds leastSilentTime{0.25};

Time after(Time time, Seconds wait)
{
    return time + std::chrono::duration_cast<Time::duration>(wait);
}

} // namespace

void PacedSender::begin(int last, Time now)
{
    Q_ASSERT(last >= 0 && last <= Packet::maxNumber);
    knowsPath = knowsPath && now - lastAnswer < pathIsFreshFor;
    if (!knowsPath)
        rate.restart(now, std::nullopt);
    entries.assign(size_t(last) + 1, {});
    nextUnsent = 1;
    packetsInFlight = packetsInDoubt = 0;
    lost.clear();
    notYetListed.clear();
    toListAgain.clear();
    requests.clear();
    firstOpenRequest = 0;
    expectedWakeUp.reset();
    isAnnounced = false;
    announceSteps = announceRequests = 0;
    tailRetries = 0;
    isSilent = false;
}

PacedSender::Step PacedSender::next(Time now)
{
    if (const auto due = std::exchange(expectedWakeUp, std::nullopt)) {
        rate.wokeLate(now - *due);
        if (now - *due > lateWakeUp)
            return WaitUntil{now}; // read answers that may be waiting first
    }
    Step step = decide(now);
    const auto *wait = std::get_if<WaitUntil>(&step);
    if (wait)
        expectedWakeUp = wait->time;
    return step;
}

PacedSender::Step PacedSender::decide(Time now)
{
    if (!isAnnounced)
        return announce(now);
    closeOldRequests(now);
    probeIfSilent(now);
    if (isRequestDue())
        return makeRequest(now);
    if (isSilent && packetsInFlight >= probePackets)
        return WaitUntil{nextProbe};
    if (!isSilent && !rate.maySend(bytesInFlight(), now)) {
        if (rate.isFull(bytesInFlight()))
            return notYetListed.empty() ? waitForAnswers(now) : makeRequest(now);
        return WaitUntil{rate.nextChance(now)};
    }
    if (const int number = choosePacket(); number > 0)
        return sendPacket(number);
    rate.noteStarved(bytesInFlight());
    if (!notYetListed.empty() || !toListAgain.empty())
        return makeRequest(now);
    retryTail(now);
    return lost.empty() && toListAgain.empty() ? waitForAnswers(now) : decide(now);
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
    const double factor =
        std::min(std::pow(announceIntervalGrowth, announceRequests), maxAnnounceIntervalFactor);
    const Seconds pause = knowsPath ? rate.timeout() : firstAnnounceInterval;
    nextAnnouncement =
        after(now, std::min(pause * factor, std::max(longestAnnounceInterval, pause)));
    ++announceRequests;
    lastRequestTime = now;
    return SendRequest{std::vector<quint16>(announceCopies, 0)};
}

void PacedSender::endAnnouncing(Time now)
{
    isAnnounced = true;
    enter(State::Acknowledged, 0);
    if (!knowsPath) {
        const bool isCertain = announceRequests == 1;
        rate.restart(now, isCertain ? std::optional<Seconds>(now - lastRequestTime) : std::nullopt);
    }
    knowsPath = true;
}

// --- packets and requests ---

// Chooses the packet to send next. Returns 0 if all have been sent and none is known to be lost.
int PacedSender::choosePacket()
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
    enter(State::InFlight, quint16(number));
    entry.unansweredRequests = 0;
    entry.lastListedBy = 0;
    notYetListed.push_back(quint16(number));
    rate.sent(RateControl::packetBytes);
    return SendPacket{quint16(number)};
}

bool PacedSender::isRequestDue() const
{
    return int(notYetListed.size()) >= rate.groupSize() || toListAgain.size() >= maxListed
        || (isSilent && int(notYetListed.size()) >= probePackets);
}

// Makes a request. Lists the packets to ask about again first, because they were sent earlier.
PacedSender::Step PacedSender::makeRequest(Time now)
{
    Request request;
    request.number = ++lastRequestNumber;
    request.departure = rate.departure(now);
    const auto list = [&](quint16 number) {
        Entry &entry = entries[number];
        if (!isUndecided(number) || entry.lastListedBy == request.number)
            return;
        entry.isRelisted = entry.isRelisted || entry.lastListedBy != 0;
        entry.lastListedBy = request.number;
        request.numbers.push_back(number);
    };
    while (!toListAgain.empty() && request.numbers.size() + notYetListed.size() < maxListed) {
        list(toListAgain.front());
        toListAgain.pop_front();
    }
    for (const quint16 number : notYetListed)
        list(number);
    notYetListed.clear();
    lastRequestTime = now;
    rate.sent(requestBytes + numberBytes * double(request.numbers.size()));
    Q_ASSERT(requests.empty() || requests.back().number + 1 == request.number); // see findRequest()
    requests.push_back(request);
    dropOldRequests();
    return SendRequest{std::move(request.numbers)};
}

PacedSender::Step PacedSender::waitForAnswers(Time now)
{
    Time until = after(now, rate.timeout());
    if (firstOpenRequest < requests.size())
        until = std::min(until, after(requests[firstOpenRequest].departure.sentAt, rate.timeout()));
    if (undecidedPackets() <= tailPackets && tailRetries < maxTailRetries)
        until = std::min(until, after(lastRequestTime, tailPause()));
    return WaitUntil{std::max(until, after(now, RateControl::quantum))};
}

// --- answers ---

void PacedSender::acknowledged(std::span<const quint16> numbers, Time now)
{
    if (numbers.empty())
        return;
    lastAnswer = now;
    if (expectedWakeUp)
        expectedWakeUp = std::min<Time>(*expectedWakeUp, now + reaction);
    if (!isAnnounced) {
        if (std::find(numbers.begin(), numbers.end(), 0) != numbers.end())
            endAnnouncing(now);
        return;
    }
    if (isSilent)
        endSilence(now);
    const Match match = findRequest(numbers);
    int newlyHeld = 0;
    for (const quint16 number : numbers) {
        if (number >= entries.size() || entries[number].state == State::Acknowledged)
            continue;
        enter(State::Acknowledged, number);
        ++newlyHeld;
    }
    if (newlyHeld > 0)
        tailRetries = 0;
    const double newBytes = newlyHeld * RateControl::packetBytes;
    if (match.request)
        takeAnswer(*match.request, newBytes, match.isCertain, now);
    else
        rate.countDelivered(newBytes);
}

void PacedSender::enter(State state, quint16 number)
{
    Q_ASSERT(number < entries.size());
    State &current = entries[number].state;
    packetsInFlight += (state == State::InFlight) - (current == State::InFlight);
    packetsInDoubt += (state == State::InDoubt) - (current == State::InDoubt);
    current = state;
}

void PacedSender::markLost(quint16 number)
{
    enter(State::Lost, number);
    lost.push_back(number);
}

// Returns whether the packet was sent and its fate is not yet known.
bool PacedSender::isUndecided(quint16 number) const
{
    const State state = entries[number].state;
    return state == State::InFlight || state == State::InDoubt;
}

bool PacedSender::isUndecidedIn(const Request &request, quint16 number) const
{
    return isUndecided(number) && entries[number].lastListedBy == request.number;
}

// Finds the request that an answer belongs to, which the answer itself does not say. That request
// lists all numbers of the answer, and is the last one to list those that were not listed again.
PacedSender::Match PacedSender::findRequest(std::span<const quint16> numbers)
{
    quint32 wanted = 0;
    for (const quint16 number : numbers) {
        if (number >= entries.size() || entries[number].lastListedBy == 0)
            continue;
        const quint32 candidate = entries[number].lastListedBy;
        if (wanted == 0 || candidate < wanted)
            wanted = candidate;
    }
    if (wanted == 0 || requests.empty() || wanted < requests.front().number)
        return {};
    const bool isCertain = std::any_of(numbers.begin(), numbers.end(), [&](quint16 number) {
        return number < entries.size() && entries[number].lastListedBy == wanted
            && !entries[number].isRelisted;
    });
    Request &request = requests[wanted - requests.front().number];
    if (request.isClosed)
        return {};
    return {&request, isCertain};
}

// Treats listed packets that the answer does not name as lost. If the answer may belong to an
// earlier request, this holds only for packets that an earlier request had listed too.
void PacedSender::takeAnswer(Request &request, double newBytes, bool isCertain, Time now)
{
    RateControl::Answer answer;
    answer.delivered = newBytes + requestBytes + numberBytes * double(request.numbers.size());
    for (const quint16 number : request.numbers) {
        const bool isNamedBefore = entries[number].isRelisted;
        const bool isLost = isUndecidedIn(request, number);
        answer.arrived += !isNamedBefore && !isLost;
        answer.lost += !isNamedBefore && isLost;
        if (isLost && (isCertain || isNamedBefore))
            markLost(number);
    }
    if (!isCertain)
        return rate.countDelivered(newBytes);
    request.isClosed = true;
    rate.answered(request.departure, answer, bytesInFlight(), now);
    while (firstOpenRequest < requests.size()
        && (requests[firstOpenRequest].isClosed
            || requests[firstOpenRequest].number + overtakenAfter <= request.number))
        closeUnanswered(requests[firstOpenRequest++]);
}

void PacedSender::closeUnanswered(Request &request)
{
    if (request.isClosed)
        return;
    request.isClosed = true;
    for (const quint16 number : request.numbers) {
        if (!isUndecidedIn(request, number))
            continue;
        if (++entries[number].unansweredRequests >= unansweredUntilLost) {
            markLost(number);
            continue;
        }
        enter(State::InDoubt, number);
        toListAgain.push_back(number);
    }
}

void PacedSender::dropOldRequests()
{
    while (requests.size() > requestsKept) {
        if (firstOpenRequest > 0)
            --firstOpenRequest;
        else
            closeUnanswered(requests.front());
        requests.pop_front();
    }
}

void PacedSender::closeOldRequests(Time now)
{
    while (firstOpenRequest < requests.size()) {
        Request &request = requests[firstOpenRequest];
        if (!request.isClosed && now - request.departure.sentAt < rate.timeout())
            return;
        if (!request.isClosed)
            rate.timedOut();
        closeUnanswered(request);
        ++firstOpenRequest;
    }
}

// --- the end of a file, and of the path ---

// Called when nothing else is left to send. Asks about the last few packets again, or sends them
// again if the path loses many, instead of waiting a round trip for each loss.
void PacedSender::retryTail(Time now)
{
    const int undecided = undecidedPackets();
    if (undecided == 0 || undecided > tailPackets || tailRetries >= maxTailRetries
        || now - lastRequestTime < tailPause())
        return;
    ++tailRetries;
    for (size_t number = 1; number < entries.size(); ++number) {
        if (!isUndecided(quint16(number)))
            continue;
        if (rate.loss() > highLoss)
            markLost(quint16(number));
        else
            toListAgain.push_back(quint16(number));
    }
}

PacedSender::Seconds PacedSender::tailPause() const
{
    return std::max(rate.roundTrip() / 3, leastTailPause);
}

bool PacedSender::isProbeDue(Time now) const
{
    if (isSilent)
        return now >= nextProbe;
    return undecidedPackets() > 0
        && now - lastAnswer >= std::max(timeoutsUntilSilent * rate.leastTimeout(), leastSilentTime);
}

// While no answers arrive, treats all packets in flight as lost from time to time. The first few of
// them, sent again, probe the path.
void PacedSender::probeIfSilent(Time now)
{
    if (!isProbeDue(now))
        return;
    isSilent = true;
    const Seconds least = rate.leastTimeout();
    const Seconds pause = 2 * least * std::pow(2, std::min(probeRounds++, 10));
    nextProbe = after(now, std::min(pause, std::max(longestProbeInterval, least)));
    for (Request &request : requests)
        request.isClosed = true;
    firstOpenRequest = requests.size();
    notYetListed.clear();
    toListAgain.clear();
    std::vector<quint16> again;
    for (size_t number = 1; number < entries.size(); ++number) {
        if (!isUndecided(quint16(number)))
            continue;
        enter(State::Lost, quint16(number));
        again.push_back(quint16(number));
    }
    lost.insert(lost.begin(), again.begin(), again.end());
}

void PacedSender::endSilence(Time now)
{
    isSilent = false;
    probeRounds = 0;
    rate.restart(now, rate.roundTrip());
}
