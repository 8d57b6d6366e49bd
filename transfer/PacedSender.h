#pragma once

#include "RateControl.h"

#include <deque>
#include <optional>
#include <span>
#include <variant>
#include <vector>

// Decides which packet of a file leaves when, where no fixed pace is set.
//
// Every data packet stands in one status request: the next one after it. The answer tells which of
// its packets have arrived; the others are lost and are sent again. When no answer comes, the next
// request asks once more, and after that the packets count as lost.
//
// Knows the numbers of the packets and the time, but no bytes and no timer; RateControl sets the
// pace.
class PacedSender
{
public:
    using Clock = std::chrono::steady_clock;
    using Time = RateControl::Time;
    using Seconds = RateControl::Seconds;

    // How soon next() is to be asked after something was acknowledged.
    static constexpr std::chrono::milliseconds reaction{1};

    struct SendPacket
    {
        quint16 number;
    };
    struct SendRequest // to be sent twice, as always
    {
        std::vector<quint16> numbers;
    };
    struct WaitUntil
    {
        Time time; // or until something is acknowledged
    };
    using Step = std::variant<SendPacket, SendRequest, WaitUntil>;

    // Starts a file with packets 0 to last. What is known of the path is kept if it is fresh.
    void begin(int last, Time now);
    // What to do now; to be called again after each step, and after a wait.
    [[nodiscard]] Step next(Time now);
    // The peer says that it holds these; numbers above last mean nothing.
    void acknowledged(std::span<const quint16> numbers, Time now);

    [[nodiscard]] const RateControl &control() const { return rate; }

private:
    enum class State : quint8 {
        Unsent,
        Flying, // on its way, as far as anybody knows
        Doubtful, // the request about it stayed unanswered, and is made again
        Lost, // to be sent again
        Held
    };
    struct Entry
    {
        State state = State::Unsent;
        quint8 unanswered = 0; // requests about it, since it was sent last
        bool isRelisted = false; // more than one request has named it
        quint32 request = 0; // the last one that names it, 0 for none since it was sent last
    };
    struct Request
    {
        quint32 number = 0;
        std::vector<quint16> numbers;
        RateControl::Departure departure;
        bool isClosed = false; // answered, or not any more
    };

    [[nodiscard]] Step decide(Time now);
    [[nodiscard]] Step announce(Time now);
    void takeAnnounced(Time now);
    [[nodiscard]] Step ask(Time now);
    [[nodiscard]] bool isAskDue() const;
    [[nodiscard]] Step waitForAnswers(Time now);
    [[nodiscard]] int choose();
    [[nodiscard]] Step sendPacket(int number);
    [[nodiscard]] bool isOpen(quint16 number) const;
    [[nodiscard]] bool isOpenIn(const Request &request, quint16 number) const;
    void enter(State state, quint16 number);
    void lose(quint16 number);
    [[nodiscard]] Request *findRequest(std::span<const quint16> numbers, bool &isCertain);
    void takeAnswer(Request &request, double newBytes, bool isCertain, Time now);
    void closeUnanswered(Request &request);
    void closeOldRequests(Time now);
    void tryTheTail(Time now);
    void fallSilent(Time now);
    void wakeUp(Time now);
    [[nodiscard]] double inFlight() const { return flying * RateControl::packetBytes; }

    RateControl rate;
    std::optional<Time> dueAt; // when next() is to be asked, after a wait
    Time lastAnswer; // of any file
    bool knowsPath = false;

    std::vector<Entry> entries;
    int nextUnsent = 1;
    int flying = 0, doubtful = 0; // packets in these states
    std::deque<quint16> lost; // in the order in which they are to be sent; some are held by now
    std::vector<quint16> unlisted; // sent since the last request
    std::deque<quint16> askAgain;

    std::deque<Request> requests; // the last ones, oldest first
    size_t firstOpen = 0; // those before are closed
    quint32 lastRequest = 0;
    Time lastAsk;

    bool isAnnounced = false;
    int announceSteps = 0; // of this round
    int announceRequests = 0;
    Time announceAgain;

    int tailTries = 0; // since the last news
    bool isSilent = false; // no answer comes; now and then a few packets try
    int silentRounds = 0;
    Time silentUntil;
};
