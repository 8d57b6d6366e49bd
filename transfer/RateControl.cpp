#include "RateControl.h"

#include <algorithm>
#include <cmath>

using Seconds = RateControl::Seconds;

namespace {

constexpr double startupGain = 2.77; // 4 ln 2: the least that doubles the rate each round
constexpr double drainGain = 1 / startupGain;
// The gain in Up is larger for slow flows, so that two flows on one path converge to equal shares.
constexpr double upPackets = 5, leastUp = 0.1, mostUp = 0.5;
constexpr double enoughFound = 0.5; // share of the rate tried in Up; Up goes on if it finds more
constexpr double maxBoost = 8, maxUpGrowth = 1;
// When another flow appears, fast flows give up more than slow ones, for the same reason.
constexpr double leastKept = 0.65, mostKept = 0.95, keptByShare = 0.6;
constexpr double downGain = 0.75;
constexpr double queueingGain = 1.2, leastQueueingGain = 0.5; // in Cruise, while a queue stands
// Startup ends after queueingPlateau or plainPlateau rounds in a row in which the bandwidth has not
// grown by this factor.
constexpr double startupGrowth = 1.25;
constexpr int queueingPlateau = 3, plainPlateau = 6;
constexpr double windowTrips = 2, queueingTrips = 1.5;

// About 18 kB, similar to TCP's initial window.
constexpr double initialBytes = 64 * RateControl::packetBytes;
constexpr Seconds assumedTrip{0.1};
constexpr Seconds leastBurst{0.008}; // that a late timer may catch up
constexpr Seconds maxLateness{0.05};
constexpr Seconds shallowAfter{10}, shallowFor{0.2};
constexpr Seconds timeoutMargin{0.02};
constexpr int mostTimeoutFactor = 4;

// Rounds that bandwidth() and loss() look back on. The bandwidth looks back less far while this
// flow yields, so that it soon gives up what another flow takes.
constexpr int bandwidthRounds = 8;
constexpr int yieldingRounds = 2;
constexpr int lossRounds = 10;
constexpr int maxQueueingRounds = 10;
constexpr int enoughForLoss = 16; // packets
constexpr double highestLoss = 0.7;

constexpr int leastGroup = 4, mostGroup = 20;
constexpr int groupsInFlight = 4;

} // namespace

void RateControl::restart(Time now, std::optional<Seconds> trip)
{
    const unsigned keptRandom = random;
    const Seconds keptLateness = smoothLateness;
    *this = {};
    random = keptRandom;
    smoothLateness = keptLateness;
    knowsTrip = trip.has_value();
    shortestTrip = smoothTrip = trip.value_or(assumedTrip);
    tripSpread = smoothTrip / 2;
    shortestSeen = phaseBegan = budgetAt = lastAnsweredSentAt = now;
    // The first answer arrives one round trip from now; deliveries are measured from then on.
    lastDelivery = now + std::chrono::duration_cast<Time::duration>(shortestTrip);
}

void RateControl::timedOut()
{
    timeoutFactor = std::min(2 * timeoutFactor, mostTimeoutFactor);
}

void RateControl::wokeLate(Seconds late)
{
    smoothLateness += (std::clamp(late, Seconds::zero(), maxLateness) - smoothLateness) / 8;
}

RateControl::Departure RateControl::departure(Time now) const
{
    return {now, lastDelivery, lastAnsweredSentAt, delivered, round, delivered < starvedUntil};
}

void RateControl::answered(
    const Departure &departure, const Answer &answer, double bytesInFlight, Time now)
{
    delivered += answer.delivered;
    timeoutFactor = 1;
    noteTrip(now - departure.sentAt, now);
    noteRate(departure, now);
    noteLoss(departure, answer, now);
    lastDelivery = now;
    lastAnsweredSentAt = std::max(lastAnsweredSentAt, departure.sentAt);
    if (departure.delivered >= roundEnd) {
        beginRound();
        acceptLongerPath(now);
        if (isContested())
            giveWay();
        nextPhase(bytesInFlight, now);
    }
}

void RateControl::noteTrip(Seconds trip, Time now)
{
    if (!knowsTrip) {
        knowsTrip = true;
        shortestTrip = smoothTrip = trip;
        tripSpread = trip / 2;
    }
    tripSpread += (std::max(trip - smoothTrip, smoothTrip - trip) - tripSpread) / 8;
    smoothTrip += (trip - smoothTrip) / 8;
    shortestThisRound =
        shortestThisRound > Seconds::zero() ? std::min(shortestThisRound, trip) : trip;
    const bool isStale = now - shortestSeen > shallowAfter;
    if (trip <= shortestTrip * 1.05)
        shortestSeen = now;
    if (trip < shortestTrip)
        shortestTrip = trip;
    if (isStale && phase != Phase::Shallow && phase != Phase::Startup) {
        shortestTrip = trip;
        enter(Phase::Shallow, now);
    }
}

// Measures the rates at which packets left and arrived, and takes the lower one, because delayed
// answers that arrive all at once would suggest too high a rate.
void RateControl::noteRate(const Departure &departure, Time now)
{
    const Seconds arriving = now - departure.lastDelivery;
    const Seconds leaving = departure.sentAt - departure.lastAnsweredSentAt;
    const Seconds time = std::max(arriving, leaving);
    if (time < shortestTrip / (phase == Phase::Startup ? 2 : 1))
        return;
    const double rate = (delivered - departure.delivered) / time.count();
    if (!departure.isStarved || rate > bandwidth())
        at(round).highestRate = std::max(at(round).highestRate, rate);
}

// Ignores losses while a queue stands: they may come from its overflow rather than from the path.
void RateControl::noteLoss(const Departure &departure, const Answer &answer, Time now)
{
    if (departure.round <= round - roundsKept || isQueueing(now - departure.sentAt))
        return;
    at(departure.round).arrived += answer.arrived;
    at(departure.round).lost += answer.lost;
}

// Returns whether a round trip is so long that a queue must stand on the path.
bool RateControl::isQueueing(Seconds trip) const
{
    return trip > shortestTrip * 1.25 + 2 * quantum + granularity();
}

void RateControl::beginRound()
{
    ++round;
    ++phaseRounds;
    shortestLastRound = shortestThisRound;
    shortestThisRound = {};
    at(round) = {};
    roundEnd = delivered;
}

// If a queue seems to stand for many rounds although this flow gives way in each, the path itself
// has become longer: accepts the new round trip.
void RateControl::acceptLongerPath(Time now)
{
    if (phase == Phase::Startup || !isQueueing(shortestLastRound)) {
        queueingRounds = 0;
        return;
    }
    shortestQueueing =
        queueingRounds == 0 ? shortestLastRound : std::min(shortestQueueing, shortestLastRound);
    if (++queueingRounds < maxQueueingRounds)
        return;
    queueingRounds = 0;
    shortestTrip = shortestQueueing;
    shortestSeen = now;
}

// Returns whether a queue stands that this flow's own probing does not explain.
bool RateControl::isContested() const
{
    if (phase == Phase::Cruise)
        return isQueueing(shortestLastRound);
    const bool hasProbed = phase == Phase::Weigh || phase == Phase::Down;
    return hasProbed && isQueueing(shortestLastRound - (upGain() - 1) * shortestTrip);
}

// Lowers the rate for other flows on the path. Slower flows give up less, so they gain what faster
// ones release. Bandwidth that nobody takes is soon found again by probing.
void RateControl::giveWay()
{
    const double keep =
        std::clamp(leastKept + keptByShare * (growthShare() - leastUp), leastKept, mostKept);
    for (Round &each : rounds)
        each.highestRate *= keep;
}

void RateControl::enter(Phase next, Time now)
{
    phase = next;
    phaseBegan = now;
    phaseRounds = 0;
    random = random * 1'664'525 + 1'013'904'223;
    roundsOfCruise = 2 + int(random >> 30);
}

void RateControl::nextPhase(double bytesInFlight, Time now)
{
    switch (phase) {
    case Phase::Startup:
        if (updatePlateau())
            enter(Phase::Drain, now);
        break;
    case Phase::Drain:
    case Phase::Down:
        if (bytesInFlight <= bandwidthDelayProduct() || phaseRounds >= 2)
            enter(Phase::Cruise, now);
        break;
    case Phase::Up:
        enter(Phase::Weigh, now);
        break;
    case Phase::Weigh:
        weigh(now);
        break;
    case Phase::Cruise:
        if (phaseRounds >= roundsOfCruise)
            probe(1, now);
        break;
    case Phase::Shallow:
        if (now - phaseBegan > shallowFor && phaseRounds >= 2) {
            shortestSeen = now;
            probe(1, now);
        }
        break;
    }
}

// Returns whether Startup should end, because several rounds have found no more bandwidth.
bool RateControl::updatePlateau()
{
    if (delivered < starvedUntil)
        return false;
    plateauRounds = bandwidth() >= startupGrowth * plateauRate ? 0 : plateauRounds + 1;
    plateauRate = std::max(plateauRate, bandwidth());
    return plateauRounds >= (isQueueing(shortestLastRound) ? queueingPlateau : plainPlateau);
}

void RateControl::probe(double boost, Time now)
{
    upBoost = boost;
    rateBeforeUp = bandwidth();
    enter(Phase::Up, now);
}

// Judges the result of Up, whose answers have only now arrived.
void RateControl::weigh(Time now)
{
    const double found = bandwidth() / rateBeforeUp - 1;
    if (!isQueueing(shortestLastRound) && found > (upGain() - 1) * enoughFound)
        probe(std::min(upBoost * 2, maxBoost), now);
    else
        enter(Phase::Down, now);
}

// Returns by which share the rate may grow in Up; it is larger for slower flows.
double RateControl::growthShare() const
{
    return upPackets / std::sqrt(bandwidthDelayProduct() / packetBytes);
}

double RateControl::upGain() const
{
    const double more = std::clamp(growthShare(), leastUp, mostUp);
    return 1 + std::min(more * upBoost, maxUpGrowth);
}

double RateControl::bandwidth() const
{
    double highest = 0;
    const bool isYielding = phase == Phase::Cruise && isQueueing(shortestLastRound);
    const int memory = isYielding ? yieldingRounds : bandwidthRounds;
    for (int i = std::max(round - memory + 1, 0); i <= round; ++i)
        highest = std::max(highest, at(i).highestRate);
    return highest > 0 ? highest : initialBytes / 2 / shortestTrip.count();
}

double RateControl::loss() const
{
    double least = 1;
    Round sum;
    for (int i = round; i >= std::max(round - lossRounds, 0); --i) {
        sum.arrived += at(i).arrived;
        sum.lost += at(i).lost;
        if (sum.arrived + sum.lost < enoughForLoss)
            continue;
        least = std::min(least, double(sum.lost) / (sum.arrived + sum.lost));
        sum = {};
    }
    return least == 1 ? 0 : std::min(least, highestLoss);
}

double RateControl::sendingRate() const
{
    return bandwidth() / (1 - loss());
}

double RateControl::gain() const
{
    switch (phase) {
    case Phase::Startup:
        return startupGain;
    case Phase::Drain:
        return drainGain;
    case Phase::Up:
        return upGain();
    case Phase::Down:
        return downGain;
    case Phase::Cruise:
        return isQueueing(shortestLastRound)
            ? std::max(queueingGain * (shortestTrip / shortestLastRound), leastQueueingGain)
            : 1;
    case Phase::Weigh:
    case Phase::Shallow:
        return 1;
    }
    return 1;
}

// Returns the bytes in flight that fill the path without a queue. Allows for the granularity of the
// sender's timer.
double RateControl::bandwidthDelayProduct() const
{
    return sendingRate() * (shortestTrip + 2 * granularity()).count();
}

double RateControl::window() const
{
    if (phase == Phase::Shallow)
        return std::max(bandwidthDelayProduct() / 2, leastGroup * packetBytes);
    const bool mayGrow = phase == Phase::Startup || !isQueueing(shortestLastRound);
    return (mayGrow ? windowTrips : queueingTrips) * bandwidthDelayProduct()
        + leastGroup * packetBytes;
}

bool RateControl::maySend(double bytesInFlight, Time now)
{
    const double rate = gain() * sendingRate();
    budget += rate * Seconds(now - budgetAt).count();
    budgetAt = now;
    budget =
        std::min(budget, std::max(rate * (leastBurst + 2 * smoothLateness).count(), packetBytes));
    return budget > 0 && !isFull(bytesInFlight);
}

RateControl::Time RateControl::nextChance(Time now) const
{
    const double rate = gain() * sendingRate();
    const Seconds wait{(1 - budget) / rate};
    return now + std::chrono::duration_cast<Time::duration>(std::max(wait, quantum));
}

Seconds RateControl::leastTimeout() const
{
    return smoothTrip + std::max(4 * tripSpread, smoothTrip / 4) + timeoutMargin;
}

int RateControl::groupSize() const
{
    return std::clamp(
        int(bandwidthDelayProduct() / packetBytes / groupsInFlight), leastGroup, mostGroup);
}
