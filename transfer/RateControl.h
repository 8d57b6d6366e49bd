#pragma once

#include <QtGlobal>

#include <array>
#include <chrono>
#include <optional>

// How fast packets may leave when no fixed pace is set, found from what is acknowledged.
//
// The path is known by three figures: the highest rate at which it has delivered lately, its
// shortest round trip, and the share that it loses at its best. Packets leave at the rate that
// makes it deliver the first, and at most about two round trips' worth of them are on their way.
// Now and then a round is sent faster, to find more, and again faster as long as that finds some;
// then one slower, to empty the queue that this may have made. A queue that this flow's own probing
// does not explain is another flow's doing, and makes it give up a part of its rate. Loss alone
// never lowers the rate: a path that loses a third of everything is sent half as much again.
//
// Knows no socket, no timer and no clock. Sizes are bytes on the wire.
class RateControl
{
public:
    using Time = std::chrono::steady_clock::time_point;
    using Seconds = std::chrono::duration<double>;

    static constexpr double packetBytes = 293; // a full data packet with its IP and UDP headers
    static constexpr Seconds quantum{0.001}; // the sender's timer: what is due leaves together

    // What was known when a status request left; its answer brings it back.
    struct Departure
    {
        Time left;
        Time lastDelivery; // when the answer before it came, and when the request of that had left
        Time lastAnsweredLeft;
        double delivered = 0;
        int round = 0;
        bool isStarved = false; // there was too little to send to fill the path
    };
    struct Answer
    {
        double delivered = 0; // bytes, newly
        int arrived = 0, lost = 0; // packets that no request has named before
    };

    // Forgets the path, but for its round trip if that is known.
    void restart(Time now, std::optional<Seconds> roundTrip);

    [[nodiscard]] Departure departure(Time now) const;
    void left(double bytes) { budget -= bytes; }
    void answered(const Departure &departure, const Answer &answer, double inFlight, Time now);
    // Something has arrived, but it is not certain which request the answer is one to.
    void add(double bytes) { delivered += bytes; }
    // No answer came within timeout(). Until one comes the next ones get more time: they may only
    // be late.
    void timedOut();
    // The sender came so much later than it had asked for. A busy host's timers are late all the
    // time, which must not count as the path's doing.
    void woke(Seconds late);
    // There is nothing to send although it might leave.
    void starve(double inFlight) { starvedUntil = delivered + inFlight; }

    // Whether a packet may leave now; if not, nextChance() says when the pace allows one, which is
    // in the past if only answers can.
    [[nodiscard]] bool mayLeave(double inFlight, Time now);
    [[nodiscard]] bool isFull(double inFlight) const { return inFlight >= window(); }
    [[nodiscard]] Time nextChance(Time now) const;

    // After how long an answer will not come any more.
    [[nodiscard]] Seconds timeout() const { return patience * leastTimeout(); }
    [[nodiscard]] Seconds leastTimeout() const;
    [[nodiscard]] Seconds roundTrip() const { return shortestTrip; }
    // How many data packets are to leave between two status requests.
    [[nodiscard]] int groupSize() const;
    [[nodiscard]] double loss() const;
    [[nodiscard]] double sendingRate() const; // bytes a second, without the gain of the phase

private:
    enum class Phase { Startup, Drain, Up, Weigh, Down, Cruise, Shallow };
    struct Round
    {
        double rate = 0; // the highest that was measured
        int arrived = 0, lost = 0; // of the packets sent in it
    };
    static constexpr int roundsKept = 16;

    [[nodiscard]] double bandwidth() const;
    // How far apart the moments are at which the sender can act.
    [[nodiscard]] Seconds granularity() const { return quantum + lateness; }
    [[nodiscard]] double gain() const;
    [[nodiscard]] double pipe() const;
    [[nodiscard]] double window() const;
    [[nodiscard]] Round &at(int number) { return rounds[size_t(number % roundsKept)]; }
    [[nodiscard]] const Round &at(int number) const { return rounds[size_t(number % roundsKept)]; }
    void noteTrip(Seconds trip, Time now);
    void noteRate(const Departure &departure, Time now);
    void noteLoss(const Departure &departure, const Answer &answer, Time now);
    [[nodiscard]] bool isCrowded(Seconds trip) const; // a queue stands
    void beginRound();
    void enter(Phase next, Time now);
    void nextPhase(double inFlight, Time now);
    [[nodiscard]] bool hasFoundAll();
    void probe(double boost, Time now);
    void weigh(Time now);
    void noteCrowd(Time now);
    [[nodiscard]] bool isContested() const;
    void giveWay();
    [[nodiscard]] double growthShare() const;
    [[nodiscard]] double upGain() const;

    Phase phase = Phase::Startup;
    Time phaseBegan;
    int phaseRounds = 0; // begun since then
    int cruiseRounds = 0; // to stay for
    double rateBeforeUp = 0;
    double upBoost = 1; // of the gain in Up, while it goes on finding more
    unsigned random = 1; // spreads the probing of flows that share a path

    Seconds shortestTrip{};
    Time shortestSeen;
    Seconds smoothTrip{}, tripSpread{};
    int patience = 1;
    Seconds lateness{}; // of the sender's timer, smoothed
    Seconds roundTripNow{}, lastRoundTrip{}; // the shortest of this round, of the last one
    int crowdedRounds = 0; // in a row
    Seconds leastCrowded{}; // the shortest round trip in them
    bool knowsTrip = false;

    std::array<Round, roundsKept> rounds;
    int round = 0;
    double roundEnd = 0;
    double plateau = 0; // of the bandwidth, in Startup
    int plateauRounds = 0;

    double delivered = 0;
    Time lastDelivery, lastAnsweredLeft;
    double starvedUntil = -1;
    double budget = 0; // bytes that may leave
    Time budgetAt;
};
