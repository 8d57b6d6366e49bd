#pragma once

#include "Packet.h"

#include <chrono>

// Detects a peer that will never acknowledge the rest of a file, and tells it from one that is slow
// or unreachable. A peer that was restarted during a transfer knows neither the file's id nor the
// packets that it had received.
class AnswerWatch
{
public:
    using Clock = std::chrono::steady_clock;

    // The time and the number of datagrams that must pass without an answer. Every request goes out
    // twice. Over a link that loses half of the datagrams each way, 60 requests in a row stay
    // unanswered about once in 10^24 times, and 20 about once in 10^8.
    std::chrono::milliseconds patience = std::chrono::minutes(5);
    static constexpr int maxUnanswered = 120;
    // The same limits while other packets of the peer keep arriving.
    static constexpr std::chrono::seconds patienceIfAlive{5};
    static constexpr int maxUnansweredIfAlive = 40;
    // If the longest gap between answers so far was short, fewer datagrams suffice: a multiple of
    // that gap, once enough gaps have been seen. With ticks of a second, 40 datagrams would take
    // more than a minute and a half.
    static constexpr int leastUnansweredIfAlive = 8;
    static constexpr int timesTheLongest = 4;
    static constexpr int enoughAnswers = 20;
    // If the peer shows later than this after its last answer that a packet of ours has reached it,
    // that packet was sent after the answer.
    static constexpr std::chrono::seconds longestTrip{2};

    // Call for every request sent. Returns true, once, if the peer has acknowledged something of
    // this file, but nothing for too long. Unless the peer is known to hear us, also waits as long
    // as the file took until the last answer: an outage then costs a long transfer at most the time
    // that it lasts.
    [[nodiscard]] bool isInVain(char id, Clock::time_point now = Clock::now());
    // Call for every packet that arrives.
    void received(const Packet &packet, Clock::time_point now = Clock::now());

private:
    [[nodiscard]] int mostUnansweredIfAlive() const;
    void answered(Clock::time_point now);
    void noteAlive(const Packet &packet, Clock::time_point now);

    char requestedId = -1;
    bool isAcknowledging = false; // something of this file was acknowledged
    int unanswered = 0; // datagrams since the last answer
    int longestUnanswered = 0; // of the gaps that have ended
    int endedGaps = 0;
    Clock::time_point firstAnswer;
    Clock::time_point lastAnswer;

    Clock::time_point lastOtherPacket{}; // any packet that is not an answer
    bool isPeerAnnouncing = false;
    bool doesPeerHear = false; // it went on after its packet 0, so our acknowledgement has arrived
};
