#pragma once

#include "Packet.h"

#include <chrono>

// Tells a peer that will never acknowledge a file any more from one that is slow or out of reach:
// it was restarted in mid-transfer and knows neither the file's id nor what it held of it.
//
// Owner:   whoever sends the status requests.
// Thread:  any one thread.
class AnswerWatch
{
public:
    using Clock = std::chrono::steady_clock;

    // Time and datagrams that must pass without an answer. Every request goes out twice; over a
    // link that loses half of the datagrams each way, 60 in a row stay unanswered about once in
    // 10^24, and 20 once in 10^8.
    std::chrono::milliseconds patience = std::chrono::minutes(5);
    static constexpr int maxUnanswered = 120;
    // The same while packets of the peer itself keep coming.
    static constexpr std::chrono::seconds patienceIfAlive{5};
    static constexpr int maxUnansweredIfAlive = 40;
    // Fewer datagrams are enough where answers have never failed to come for long: a multiple of
    // the longest row so far, once there have been enough of them to tell. Where a tick takes a
    // second, 40 datagrams take more than a minute and a half.
    static constexpr int leastUnansweredIfAlive = 8;
    static constexpr int timesTheLongest = 4;
    static constexpr int enoughAnswers = 20;
    // After that an answer of ours that the peer shows to have got is not one from before.
    static constexpr std::chrono::seconds longestTrip{2};

    // For every request sent. True once when the peer has acknowledged something of this file, but
    // nothing for too long. The time is also at least as long as the file took until the last
    // answer, so that an outage costs a long transfer no more than it has lasted; not so when the
    // peer is known to hear us.
    [[nodiscard]] bool isInVain(char id, Clock::time_point now = Clock::now());
    // For every packet that arrives.
    void received(const Packet &packet, Clock::time_point now = Clock::now());

private:
    [[nodiscard]] int mostUnansweredIfAlive() const;
    void answered(Clock::time_point now);
    void noteAlive(const Packet &packet, Clock::time_point now);

    char id = -1; // of the last request
    bool isAnnounced = false; // something of this file was acknowledged
    int unanswered = 0;
    int longestUnanswered = 0; // that an answer has ended
    int answers = 0; // that came after something unanswered
    Clock::time_point firstAnswer;
    Clock::time_point lastAnswer;

    Clock::time_point lastSeen{}; // a packet that is no answer
    bool isPeerAnnouncing = false; // a file of its own
    bool isHeard = false; // it has gone on behind its packet 0, which takes an answer of ours
};
