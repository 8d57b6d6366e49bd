#include "RateControl.h"

#include <algorithm>
#include <cmath>

using Seconds = RateControl::Seconds;

namespace {

constexpr double startupGain = 2.77; // 4 ln 2: the least that doubles the rate each round
constexpr double drainGain = 1 / startupGain;
// More for the slow: two that share a path come to equal parts.
constexpr double upPackets = 5, leastUp = 0.1, mostUp = 0.5;
constexpr double enoughFound = 0.5; // of what Up has tried; then it tries more
constexpr double mostBoost = 8, mostUpEver = 1;
// When another flow shows, the fast give up more than the slow, for the same reason.
constexpr double leastKept = 0.65, mostKept = 0.95, keptByShare = 0.6;
constexpr double downGain = 0.75;
constexpr double yielding = 1.2, leastYield = 0.5; // while a queue stands that nobody probes for
constexpr double growth = 1.25; // of a round in Startup; less is none
constexpr int crowdedPlateau = 3, plainPlateau = 6; // rounds without growth that end Startup
constexpr double windowTrips = 2, crowdedTrips = 1.5;

constexpr double initialBytes = 64 * RateControl::packetBytes; // some 18 kB, about TCP's first
constexpr Seconds unknownTrip{0.1};
constexpr Seconds leastBurst{0.008}; // what a late timer may make up for
constexpr Seconds mostLateness{0.05};
constexpr Seconds shallowAfter{10}, shallowFor{0.2};
constexpr Seconds timeoutMargin{0.02};
constexpr int mostPatience = 4;

constexpr int bandwidthRounds = 8; // that the figures look back on
constexpr int yieldingRounds = 2; // so that what another one takes is soon given up
constexpr int lossRounds = 10;
constexpr int longestCrowd = 10; // rounds
constexpr int enoughForLoss = 16; // packets
constexpr double highestLoss = 0.7;

constexpr int leastGroup = 4, mostGroup = 20;
constexpr int groupsInPipe = 4;

} // namespace

void RateControl::restart(Time now, std::optional<Seconds> trip)
{
    const unsigned keptRandom = random;
    const Seconds keptLateness = lateness;
    *this = {};
    random = keptRandom;
    lateness = keptLateness;
    knowsTrip = trip.has_value();
    shortestTrip = smoothTrip = trip.value_or(unknownTrip);
    tripSpread = smoothTrip / 2;
    shortestSeen = phaseBegan = budgetAt = lastAnsweredLeft = now;
    // The first answers come a round trip from now; only from then on can anything be delivered.
    lastDelivery = now + std::chrono::duration_cast<Time::duration>(shortestTrip);
}

void RateControl::timedOut()
{
    patience = std::min(2 * patience, mostPatience);
}

void RateControl::woke(Seconds late)
{
    lateness += (std::clamp(late, Seconds::zero(), mostLateness) - lateness) / 8;
}

RateControl::Departure RateControl::departure(Time now) const
{
    return {now, lastDelivery, lastAnsweredLeft, delivered, round, delivered < starvedUntil};
}

void RateControl::answered(
    const Departure &departure, const Answer &answer, double inFlight, Time now)
{
    delivered += answer.delivered;
    patience = 1;
    noteTrip(now - departure.left, now);
    noteRate(departure, now);
    noteLoss(departure, answer, now);
    lastDelivery = now;
    lastAnsweredLeft = std::max(lastAnsweredLeft, departure.left);
    if (departure.delivered >= roundEnd) {
        beginRound();
        noteCrowd(now);
        if (isContested())
            giveWay();
        nextPhase(inFlight, now);
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
    roundTripNow = roundTripNow > Seconds::zero() ? std::min(roundTripNow, trip) : trip;
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

// The rate is the slower one of those at which packets left and at which they arrived: answers that
// were held up and come all at once tell nothing.
void RateControl::noteRate(const Departure &departure, Time now)
{
    const Seconds arriving = now - departure.lastDelivery;
    const Seconds leaving = departure.left - departure.lastAnsweredLeft;
    const Seconds time = std::max(arriving, leaving);
    if (time < shortestTrip / (phase == Phase::Startup ? 2 : 1))
        return;
    const double rate = (delivered - departure.delivered) / time.count();
    if (!departure.isStarved || rate > bandwidth())
        at(round).rate = std::max(at(round).rate, rate);
}

// What is lost while a queue stands may well have overflowed it, and says nothing of the path.
void RateControl::noteLoss(const Departure &departure, const Answer &answer, Time now)
{
    if (departure.round <= round - roundsKept || isCrowded(now - departure.left))
        return;
    at(departure.round).arrived += answer.arrived;
    at(departure.round).lost += answer.lost;
}

bool RateControl::isCrowded(Seconds trip) const
{
    return trip > shortestTrip * 1.25 + 2 * quantum + granularity();
}

void RateControl::beginRound()
{
    ++round;
    ++phaseRounds;
    lastRoundTrip = roundTripNow;
    roundTripNow = {};
    at(round) = {};
    roundEnd = delivered;
}

// A queue that stays although this flow gives way round by round is none: the path has become
// longer.
void RateControl::noteCrowd(Time now)
{
    if (phase == Phase::Startup || !isCrowded(lastRoundTrip)) {
        crowdedRounds = 0;
        return;
    }
    leastCrowded = crowdedRounds == 0 ? lastRoundTrip : std::min(leastCrowded, lastRoundTrip);
    if (++crowdedRounds < longestCrowd)
        return;
    crowdedRounds = 0;
    shortestTrip = leastCrowded;
    shortestSeen = now;
}

// Whether a queue stands that this flow's own probing does not explain.
bool RateControl::isContested() const
{
    if (phase == Phase::Cruise)
        return isCrowded(lastRoundTrip);
    const bool hasProbed = phase == Phase::Weigh || phase == Phase::Down;
    return hasProbed && isCrowded(lastRoundTrip - (upGain() - 1) * shortestTrip);
}

// Somebody else has made the queue: this flow's own probing is over. What it gives up goes to those
// that have less, because they give up less; it soon finds again what nobody takes.
void RateControl::giveWay()
{
    const double keep =
        std::clamp(leastKept + keptByShare * (growthShare() - leastUp), leastKept, mostKept);
    for (Round &each : rounds)
        each.rate *= keep;
}

void RateControl::enter(Phase next, Time now)
{
    phase = next;
    phaseBegan = now;
    phaseRounds = 0;
    random = random * 1'664'525 + 1'013'904'223;
    cruiseRounds = 2 + int(random >> 30);
}

void RateControl::nextPhase(double inFlight, Time now)
{
    switch (phase) {
    case Phase::Startup:
        if (hasFoundAll())
            enter(Phase::Drain, now);
        break;
    case Phase::Drain:
    case Phase::Down:
        if (inFlight <= pipe() || phaseRounds >= 2)
            enter(Phase::Cruise, now);
        break;
    case Phase::Up:
        enter(Phase::Weigh, now);
        break;
    case Phase::Weigh:
        weigh(now);
        break;
    case Phase::Cruise:
        if (phaseRounds >= cruiseRounds)
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

// In Startup: whether some rounds have found no more.
bool RateControl::hasFoundAll()
{
    if (delivered < starvedUntil)
        return false;
    plateauRounds = bandwidth() >= growth * plateau ? 0 : plateauRounds + 1;
    plateau = std::max(plateau, bandwidth());
    return plateauRounds >= (isCrowded(lastRoundTrip) ? crowdedPlateau : plainPlateau);
}

void RateControl::probe(double boost, Time now)
{
    upBoost = boost;
    rateBeforeUp = bandwidth();
    enter(Phase::Up, now);
}

// Only now the answers to what left in Up have come.
void RateControl::weigh(Time now)
{
    const double found = bandwidth() / rateBeforeUp - 1;
    if (!isCrowded(lastRoundTrip) && found > (upGain() - 1) * enoughFound)
        probe(std::min(upBoost * 2, mostBoost), now);
    else
        enter(Phase::Down, now);
}

// The more the slower this flow is.
double RateControl::growthShare() const
{
    return upPackets / std::sqrt(pipe() / packetBytes);
}

double RateControl::upGain() const
{
    const double more = std::clamp(growthShare(), leastUp, mostUp);
    return 1 + std::min(more * upBoost, mostUpEver);
}

double RateControl::bandwidth() const
{
    double highest = 0;
    const bool isYielding = phase == Phase::Cruise && isCrowded(lastRoundTrip);
    const int memory = isYielding ? yieldingRounds : bandwidthRounds;
    for (int i = std::max(round - memory + 1, 0); i <= round; ++i)
        highest = std::max(highest, at(i).rate);
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
        return isCrowded(lastRoundTrip)
            ? std::max(yielding * (shortestTrip / lastRoundTrip), leastYield)
            : 1;
    case Phase::Weigh:
    case Phase::Shallow:
        return 1;
    }
    return 1;
}

// Bytes that fill the path without a queue, the sender's own granularity included.
double RateControl::pipe() const
{
    return sendingRate() * (shortestTrip + 2 * granularity()).count();
}

double RateControl::window() const
{
    if (phase == Phase::Shallow)
        return std::max(pipe() / 2, leastGroup * packetBytes);
    const bool mayGrow = phase == Phase::Startup || !isCrowded(lastRoundTrip);
    return (mayGrow ? windowTrips : crowdedTrips) * pipe() + leastGroup * packetBytes;
}

bool RateControl::mayLeave(double inFlight, Time now)
{
    const double rate = gain() * sendingRate();
    budget += rate * Seconds(now - budgetAt).count();
    budgetAt = now;
    budget = std::min(budget, std::max(rate * (leastBurst + 2 * lateness).count(), packetBytes));
    return budget > 0 && !isFull(inFlight);
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
    return std::clamp(int(pipe() / packetBytes / groupsInPipe), leastGroup, mostGroup);
}
