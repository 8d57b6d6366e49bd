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
    // Once enough gaps between answers have been seen, the limit is the longest of them times the
    // factor, within these bounds. At one tick a second, 40 datagrams would take over 90 seconds.
    static constexpr int minUnansweredIfAlive = 8;
    static constexpr int longestGapFactor = 4;
    static constexpr int enoughGaps = 20;
    // The longest time that a packet of ours is assumed to take before the peer shows an effect. An
    // effect that shows later than this after the last answer comes from a packet sent after it.
    static constexpr std::chrono::seconds longestTrip{2};

    // Counts a datagram that carries a request. Returns true, once, if the peer has acknowledged
    // something of this file, but nothing for too long.
    [[nodiscard]] bool countRequest(char id, Clock::time_point now = Clock::now());
    // Call for every packet that arrives.
    void received(const Packet &packet, Clock::time_point now = Clock::now());

private:
    [[nodiscard]] int allowedUnanswered(bool isAlive) const;
    [[nodiscard]] Clock::duration allowedSilence(bool isAlive) const;
    void answered(Clock::time_point now);
    void noteOtherPacket(const Packet &packet, Clock::time_point now);

    char requestedId = -1;
    bool hasAnswered = false; // about this file
    int unansweredDatagrams = 0;
    int longestGap = 0; // datagrams, of the gaps that have ended
    int endedGaps = 0;
    Clock::time_point firstAnswer;
    Clock::time_point lastAnswer;

    Clock::time_point lastOtherPacket{}; // any packet that is not an answer
    bool isPeerAnnouncing = false;
    bool doesPeerHear = false; // it went on after its packet 0, so our acknowledgement has arrived
};
