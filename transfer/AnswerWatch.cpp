#include "AnswerWatch.h"

#include <algorithm>

bool AnswerWatch::isInVain(char requestId, Clock::time_point now)
{
    if (requestId != requestedId) {
        requestedId = requestId;
        isAcknowledging = false;
        longestUnanswered = endedGaps = 0;
    }
    if (!isAcknowledging)
        return false;
    ++unanswered;
    const bool isAlive = now - lastOtherPacket < patienceIfAlive;
    const std::chrono::milliseconds least =
        isAlive ? std::min<std::chrono::milliseconds>(patience, patienceIfAlive) : patience;
    const Clock::duration limit =
        doesPeerHear ? least : std::max<Clock::duration>(least, lastAnswer - firstAnswer);
    if (unanswered <= (isAlive ? mostUnansweredIfAlive() : maxUnanswered)
        || now - lastAnswer <= limit)
        return false;
    isAcknowledging = false;
    return true;
}

int AnswerWatch::mostUnansweredIfAlive() const
{
    if (endedGaps < enoughAnswers)
        return maxUnansweredIfAlive;
    return std::clamp(
        timesTheLongest * longestUnanswered, leastUnansweredIfAlive, maxUnansweredIfAlive);
}

void AnswerWatch::received(const Packet &packet, Clock::time_point now)
{
    if (packet.kind != Packet::Acknowledgement)
        noteAlive(packet, now);
    else if (packet.id == requestedId && packet.entryCount() > 0)
        answered(now);
    else
        lastOtherPacket = now;
}

void AnswerWatch::answered(Clock::time_point now)
{
    if (!isAcknowledging)
        firstAnswer = now;
    isAcknowledging = true;
    doesPeerHear = false;
    endedGaps += unanswered > 0;
    longestUnanswered = std::max(longestUnanswered, unanswered);
    unanswered = 0;
    lastAnswer = now;
}

void AnswerWatch::noteAlive(const Packet &packet, Clock::time_point now)
{
    lastOtherPacket = now;
    if (packet.kind != Packet::Data)
        return;
    const bool wasAnnouncing = std::exchange(isPeerAnnouncing, packet.number == 0);
    // Soon after the last answer the peer may be reacting to a packet from before a restart or an
    // outage.
    const bool isRecent = unanswered <= maxUnansweredIfAlive / 2 && now - lastAnswer <= longestTrip;
    if (wasAnnouncing && !isPeerAnnouncing && !isRecent)
        doesPeerHear = true;
}
