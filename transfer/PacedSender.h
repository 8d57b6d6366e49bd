#pragma once

#include "RateControl.h"

#include <deque>
#include <optional>
#include <span>
#include <variant>
#include <vector>

// Decides which packet of a file is sent when, if no fixed pace is set.
//
// Every data packet is listed in the next status request after it. The answer names the packets
// that have arrived; the others are lost and are sent again. If no answer comes, a later request
// lists them once more; if that is not answered either, they count as lost.
//
// Deals with packet numbers and times only, not with bytes or timers. RateControl sets the pace.
class PacedSender
{
public:
    using Clock = std::chrono::steady_clock;
    using Time = RateControl::Time;
    using Seconds = RateControl::Seconds;

    // After an acknowledgement, the caller asks next() within this time.
    static constexpr std::chrono::milliseconds reaction{1};

    struct SendPacket
    {
        quint16 number;
    };
    // The caller sends the request twice, like every status request.
    struct SendRequest
    {
        std::vector<quint16> numbers;
    };
    // The caller waits until the time, or until `reaction` after an acknowledgement.
    struct WaitUntil
    {
        Time time;
    };
    using Step = std::variant<SendPacket, SendRequest, WaitUntil>;

    // Starts a file with packets 0 to last. Keeps what was measured of the path if that is recent.
    void begin(int last, Time now);
    // Returns what to do now. Call it again after each step and after each wait.
    [[nodiscard]] Step next(Time now);
    // Notes that the peer holds these packets. Ignores numbers above the last one of begin().
    void acknowledged(std::span<const quint16> numbers, Time now);

    [[nodiscard]] const RateControl &control() const { return rate; }

private:
    enum class State : quint8 {
        Unsent,
        InFlight, // sent, and no answer due yet
        InDoubt, // the request that lists it was not answered; another one will list it
        Lost,
        Acknowledged
    };
    struct Entry
    {
        State state = State::Unsent;
        quint8 unansweredRequests = 0; // since the packet was last sent
        bool isRelisted = false; // more than one request has listed it
        quint32 lastListedBy = 0; // number of a request since it was last sent; 0 for none
    };
    struct Request
    {
        quint32 number = 0;
        std::vector<quint16> numbers;
        RateControl::Departure departure;
        bool isClosed = false; // answered or given up
    };

    [[nodiscard]] Step decide(Time now);
    [[nodiscard]] Step announce(Time now);
    void endAnnouncing(Time now);
    [[nodiscard]] Step makeRequest(Time now);
    [[nodiscard]] bool isRequestDue() const;
    [[nodiscard]] Step waitForAnswers(Time now);
    [[nodiscard]] int choosePacket();
    [[nodiscard]] Step sendPacket(int number);
    [[nodiscard]] bool isUndecided(quint16 number) const;
    [[nodiscard]] bool isUndecidedIn(const Request &request, quint16 number) const;
    void enter(State state, quint16 number);
    void markLost(quint16 number);
    // The request that an answer seems to belong to.
    struct Match
    {
        Request *request = nullptr; // null if none is known, or it is closed
        bool isCertain = false; // one of the numbers was listed by this request only
    };
    [[nodiscard]] Match findRequest(std::span<const quint16> numbers);
    void takeAnswer(Request &request, double newBytes, bool isCertain, Time now);
    void closeUnanswered(Request &request);
    void dropOldRequests();
    void closeOldRequests(Time now);
    void retryTail(Time now);
    [[nodiscard]] Seconds tailPause() const;
    [[nodiscard]] bool isProbeDue(Time now) const;
    void probeIfSilent(Time now);
    void endSilence(Time now);
    [[nodiscard]] int undecidedPackets() const { return packetsInFlight + packetsInDoubt; }
    [[nodiscard]] double bytesInFlight() const
    {
        return packetsInFlight * RateControl::packetBytes;
    }

    RateControl rate;
    std::optional<Time> expectedWakeUp;
    Time lastAnswer;
    bool knowsPath = false;

    std::vector<Entry> entries;
    int nextUnsent = 1;
    int packetsInFlight = 0, packetsInDoubt = 0;
    std::deque<quint16> lost; // in sending order; some may have been acknowledged since
    std::vector<quint16> notYetListed;
    std::deque<quint16> toListAgain;

    std::deque<Request> requests; // the most recent ones, oldest first
    size_t firstOpenRequest = 0; // index into requests; all before it are closed
    quint32 lastRequestNumber = 0;
    Time lastRequestTime;

    bool isAnnounced = false;
    int announceSteps = 0; // in the current round
    int announceRequests = 0;
    Time nextAnnouncement;

    int tailRetries = 0; // since the last answer that named a new packet
    bool isSilent = false; // no answers arrive
    int probeRounds = 0;
    Time nextProbe;
};
