#pragma once

#include <QtGlobal>

#include <array>
#include <chrono>
#include <optional>

// Derives from the acknowledgements how fast packets may leave, if no fixed pace is set.
//
// Describes the path by three figures: the highest rate that it has delivered recently, its
// shortest round trip, and its lowest recent loss. Packets are sent so fast that the path delivers
// the highest rate despite the loss, with at most about two round trips' worth of them in flight.
//
// Now and then a round is sent faster to probe for more bandwidth, and faster still while that
// finds some. A slower round follows, which drains the queue that probing may have built. If a
// queue stands that this flow's probing does not explain, another flow shares the path, and this
// one gives up part of its rate. Loss alone never lowers the rate: if a path loses a third of all
// packets, half as much again is sent.
//
// Uses no socket, timer or clock. Sizes are bytes on the wire, rates are bytes a second.
class RateControl
{
public:
    using Time = std::chrono::steady_clock::time_point;
    using Seconds = std::chrono::duration<double>;

    static constexpr double packetBytes = 293; // a full data packet with its IP and UDP headers
    // What is due within it leaves together.
    static constexpr Seconds quantum{0.001};

    // The state when a status request was sent; passed to answered() with its answer.
    struct Departure
    {
        Time sentAt;
        Time lastDelivery; // when the previous answer arrived
        Time lastAnsweredSentAt; // when that answer's request was sent
        double delivered = 0;
        int round = 0;
        bool isStarved = false; // there was too little to send to fill the path
    };
    struct Answer
    {
        double delivered = 0;
        int arrived = 0, lost = 0; // packets that no earlier request has listed
    };

    // Forgets all measurements of the path and begins with the round trip, if it is known.
    void restart(Time now, std::optional<Seconds> roundTrip);

    [[nodiscard]] Departure departure(Time now) const;
    void sent(double bytes) { budget -= bytes; }
    void answered(const Departure &departure, const Answer &answer, double bytesInFlight, Time now);
    // Counts acknowledged bytes if it is not certain which request the answer belongs to.
    void countDelivered(double bytes) { delivered += bytes; }
    // Notes that no answer came within timeout(). Until the next answer timeout() grows, because
    // answers may only be late.
    void timedOut();
    // Notes how late the sender woke up. On a busy host timers are always late, which must not be
    // attributed to the path.
    void wokeLate(Seconds late);
    // Notes that a packet might leave, but there is none to send.
    void noteStarved(double bytesInFlight) { starvedUntil = delivered + bytesInFlight; }

    // Returns whether a packet may leave now. If not, nextChance() returns when to ask again; if
    // isFull(), only an answer makes room.
    [[nodiscard]] bool maySend(double bytesInFlight, Time now);
    [[nodiscard]] bool isFull(double bytesInFlight) const { return bytesInFlight >= window(); }
    [[nodiscard]] Time nextChance(Time now) const;

    // Returns the time after which an answer is no longer expected.
    [[nodiscard]] Seconds timeout() const { return timeoutFactor * leastTimeout(); }
    [[nodiscard]] Seconds leastTimeout() const;
    [[nodiscard]] Seconds roundTrip() const { return shortestTrip; }
    // Returns the number of data packets between two status requests.
    [[nodiscard]] int groupSize() const;
    [[nodiscard]] double loss() const;
    [[nodiscard]] double sendingRate() const; // without the gain of the phase

private:
    // Startup doubles the rate each round until that finds no more bandwidth, and Drain empties the
    // queue that this has built. Then Cruise keeps the rate. Now and then Up sends faster, Weigh
    // waits for the answers and judges them, and Down drains again. Shallow sends little for a
    // moment, to measure the round trip without a queue.
    enum class Phase { Startup, Drain, Up, Weigh, Down, Cruise, Shallow };
    struct Round
    {
        double highestRate = 0;
        int arrived = 0, lost = 0; // of the packets sent in it
    };
    static constexpr int roundsKept = 16;

    [[nodiscard]] double bandwidth() const;
    // Returns the time between two moments at which the sender can act.
    [[nodiscard]] Seconds granularity() const { return quantum + smoothLateness; }
    [[nodiscard]] double gain() const;
    [[nodiscard]] double bandwidthDelayProduct() const;
    [[nodiscard]] double window() const;
    [[nodiscard]] Round &at(int number) { return rounds[size_t(number % roundsKept)]; }
    [[nodiscard]] const Round &at(int number) const { return rounds[size_t(number % roundsKept)]; }
    void noteTrip(Seconds trip, Time now);
    void noteRate(const Departure &departure, Time now);
    void noteLoss(const Departure &departure, const Answer &answer, Time now);
    [[nodiscard]] bool isQueueing(Seconds trip) const;
    void beginRound();
    void enter(Phase next, Time now);
    void nextPhase(double bytesInFlight, Time now);
    [[nodiscard]] bool updatePlateau();
    void probe(double boost, Time now);
    void weigh(Time now);
    void acceptLongerPath(Time now);
    [[nodiscard]] bool isContested() const;
    void giveWay();
    [[nodiscard]] double growthShare() const;
    [[nodiscard]] double upGain() const;

    Phase phase = Phase::Startup;
    Time phaseBegan;
    int phaseRounds = 0;
    int roundsOfCruise = 0;
    double rateBeforeUp = 0;
    double upBoost = 1; // grows while Up finds more bandwidth
    unsigned random = 1; // spreads the probing of flows that share a path

    Seconds shortestTrip{};
    Time shortestSeen;
    Seconds smoothTrip{}, tripSpread{};
    int timeoutFactor = 1;
    Seconds smoothLateness{};
    Seconds shortestThisRound{}, shortestLastRound{};
    int queueingRounds = 0; // in a row
    Seconds shortestQueueing{}; // in these rounds
    bool knowsTrip = false;

    std::array<Round, roundsKept> rounds;
    int round = 0;
    double roundEnd = 0;
    double plateauRate = 0;
    int plateauRounds = 0;

    double delivered = 0;
    Time lastDelivery, lastAnsweredSentAt;
    double starvedUntil = -1;
    double budget = 0; // that may leave now
    Time budgetAt;
};
