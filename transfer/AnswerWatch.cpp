#include "AnswerWatch.h"

#include <algorithm>

bool AnswerWatch::isInVain(char requestId, Clock::time_point now)
{
    if (requestId != id) {
        id = requestId;
        isAnnounced = false;
        longestUnanswered = answers = 0;
    }
    if (!isAnnounced)
        return false;
    ++unanswered;
    const bool isAlive = now - lastSeen < patienceIfAlive;
    const std::chrono::milliseconds least =
        isAlive ? std::min<std::chrono::milliseconds>(patience, patienceIfAlive) : patience;
    const Clock::duration limit =
        isHeard ? least : std::max<Clock::duration>(least, lastAnswer - firstAnswer);
    if (unanswered <= (isAlive ? mostUnansweredIfAlive() : maxUnanswered)
        || now - lastAnswer <= limit)
        return false;
    isAnnounced = false;
    return true;
}

int AnswerWatch::mostUnansweredIfAlive() const
{
    if (answers < enoughAnswers)
        return maxUnansweredIfAlive;
    return std::clamp(
        timesTheLongest * longestUnanswered, leastUnansweredIfAlive, maxUnansweredIfAlive);
}

void AnswerWatch::received(const Packet &packet, Clock::time_point now)
{
    if (packet.kind != Packet::Acknowledgement)
        noteAlive(packet, now);
    else if (packet.id == id && packet.entryCount() > 0)
        answered(now);
    else
        lastSeen = now;
}

void AnswerWatch::answered(Clock::time_point now)
{
    if (!isAnnounced)
        firstAnswer = now;
    isAnnounced = true;
    isHeard = false;
    answers += unanswered > 0;
    longestUnanswered = std::max(longestUnanswered, unanswered);
    unanswered = 0;
    lastAnswer = now;
}

void AnswerWatch::noteAlive(const Packet &packet, Clock::time_point now)
{
    lastSeen = now;
    if (packet.kind != Packet::Data)
        return;
    const bool wasAnnouncing = std::exchange(isPeerAnnouncing, packet.number == 0);
    // The answer that it has got may be older than what has come between us since.
    const bool isRecent = unanswered <= maxUnansweredIfAlive / 2 && now - lastAnswer <= longestTrip;
    if (wasAnnouncing && !isPeerAnnouncing && !isRecent)
        isHeard = true;
}
