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
constexpr double mostBoost = 8, mostUpEver = 1;
// When another flow appears, fast flows give up more than slow ones, for the same reason.
constexpr double leastKept = 0.65, mostKept = 0.95, keptByShare = 0.6;
constexpr double downGain = 0.75;
constexpr double yielding = 1.2, leastYield = 0.5; // in Cruise, while a queue stands
constexpr double growth = 1.25; // factor in each round of Startup; less counts as no growth
constexpr int crowdedPlateau = 3, plainPlateau = 6; // rounds without growth that end Startup
constexpr double windowTrips = 2, crowdedTrips = 1.5;

constexpr double initialBytes =
    64 * RateControl::packetBytes; // about 18 kB, similar to TCP's initial window
constexpr Seconds unknownTrip{0.1};
constexpr Seconds leastBurst{0.008}; // that a late timer may catch up
constexpr Seconds mostLateness{0.05};
constexpr Seconds shallowAfter{10}, shallowFor{0.2};
constexpr Seconds timeoutMargin{0.02};
constexpr int mostPatience = 4;

// Rounds that bandwidth() and loss() look back on. The bandwidth looks back less far while this
// flow yields, so that it soon gives up what another flow takes.
constexpr int bandwidthRounds = 8;
constexpr int yieldingRounds = 2;
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
    const Seconds keptLateness = timerLateness;
    *this = {};
    random = keptRandom;
    timerLateness = keptLateness;
    knowsTrip = trip.has_value();
    shortestTrip = smoothTrip = trip.value_or(unknownTrip);
    tripSpread = smoothTrip / 2;
    shortestSeen = phaseBegan = budgetAt = lastAnsweredLeft = now;
    // The first answer arrives one round trip from now; deliveries are measured from then on.
    lastDelivery = now + std::chrono::duration_cast<Time::duration>(shortestTrip);
}

void RateControl::timedOut()
{
    patience = std::min(2 * patience, mostPatience);
}

void RateControl::woke(Seconds late)
{
    timerLateness += (std::clamp(late, Seconds::zero(), mostLateness) - timerLateness) / 8;
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
    const Seconds leaving = departure.left - departure.lastAnsweredLeft;
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
    if (departure.round <= round - roundsKept || isCrowded(now - departure.left))
        return;
    at(departure.round).arrived += answer.arrived;
    at(departure.round).lost += answer.lost;
}

// Returns whether a round trip is so long that a queue must stand on the path.
bool RateControl::isCrowded(Seconds trip) const
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
void RateControl::noteCrowd(Time now)
{
    if (phase == Phase::Startup || !isCrowded(shortestLastRound)) {
        crowdedRounds = 0;
        return;
    }
    shortestCrowded =
        crowdedRounds == 0 ? shortestLastRound : std::min(shortestCrowded, shortestLastRound);
    if (++crowdedRounds < longestCrowd)
        return;
    crowdedRounds = 0;
    shortestTrip = shortestCrowded;
    shortestSeen = now;
}

// Returns whether a queue stands that this flow's own probing does not explain.
bool RateControl::isContested() const
{
    if (phase == Phase::Cruise)
        return isCrowded(shortestLastRound);
    const bool hasProbed = phase == Phase::Weigh || phase == Phase::Down;
    return hasProbed && isCrowded(shortestLastRound - (upGain() - 1) * shortestTrip);
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

// Returns whether Startup should end, because several rounds have found no more bandwidth.
bool RateControl::hasFoundAll()
{
    if (delivered < starvedUntil)
        return false;
    plateauRounds = bandwidth() >= growth * plateauRate ? 0 : plateauRounds + 1;
    plateauRate = std::max(plateauRate, bandwidth());
    return plateauRounds >= (isCrowded(shortestLastRound) ? crowdedPlateau : plainPlateau);
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
    if (!isCrowded(shortestLastRound) && found > (upGain() - 1) * enoughFound)
        probe(std::min(upBoost * 2, mostBoost), now);
    else
        enter(Phase::Down, now);
}

// Returns by which share the rate may grow in Up; it is larger for slower flows.
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
    const bool isYielding = phase == Phase::Cruise && isCrowded(shortestLastRound);
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
        return isCrowded(shortestLastRound)
            ? std::max(yielding * (shortestTrip / shortestLastRound), leastYield)
            : 1;
    case Phase::Weigh:
    case Phase::Shallow:
        return 1;
    }
    return 1;
}

// Returns the bytes in flight that fill the path without a queue. Allows for the granularity of the
// sender's timer.
double RateControl::pipe() const
{
    return sendingRate() * (shortestTrip + 2 * granularity()).count();
}

double RateControl::window() const
{
    if (phase == Phase::Shallow)
        return std::max(pipe() / 2, leastGroup * packetBytes);
    const bool mayGrow = phase == Phase::Startup || !isCrowded(shortestLastRound);
    return (mayGrow ? windowTrips : crowdedTrips) * pipe() + leastGroup * packetBytes;
}

bool RateControl::mayLeave(double inFlight, Time now)
{
    const double rate = gain() * sendingRate();
    budget += rate * Seconds(now - budgetAt).count();
    budgetAt = now;
    budget =
        std::min(budget, std::max(rate * (leastBurst + 2 * timerLateness).count(), packetBytes));
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
