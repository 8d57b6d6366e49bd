#include "AnswerWatch.h"

#include <algorithm>

bool AnswerWatch::countRequest(char id, Clock::time_point now)
{
    if (id != requestedId) {
        requestedId = id;
        hasAnswered = false;
        longestGap = endedGaps = 0;
    }
    if (!hasAnswered)
        return false;
    ++unansweredDatagrams;
    const bool isAlive = now - lastOtherPacket < patienceIfAlive;
    if (unansweredDatagrams <= allowedUnanswered(isAlive)
        || now - lastAnswer <= allowedSilence(isAlive))
        return false;
    hasAnswered = false;
    return true;
}

int AnswerWatch::allowedUnanswered(bool isAlive) const
{
    if (!isAlive)
        return maxUnanswered;
    if (endedGaps < enoughGaps)
        return maxUnansweredIfAlive;
    return std::clamp(longestGapFactor * longestGap, minUnansweredIfAlive, maxUnansweredIfAlive);
}

// Unless the peer is known to hear us, waits at least as long as the file took until the last
// answer. An outage then costs a long transfer at most the time that it lasts.
AnswerWatch::Clock::duration AnswerWatch::allowedSilence(bool isAlive) const
{
    const std::chrono::milliseconds least =
        isAlive ? std::min<std::chrono::milliseconds>(patience, patienceIfAlive) : patience;
    return doesPeerHear ? least : std::max<Clock::duration>(least, lastAnswer - firstAnswer);
}

void AnswerWatch::received(const Packet &packet, Clock::time_point now)
{
    if (packet.kind != Packet::Acknowledgement)
        noteOtherPacket(packet, now);
    else if (packet.id == requestedId && packet.entryCount() > 0)
        answered(now);
    else
        lastOtherPacket = now;
}

void AnswerWatch::answered(Clock::time_point now)
{
    if (!hasAnswered)
        firstAnswer = now;
    hasAnswered = true;
    doesPeerHear = false;
    endedGaps += unansweredDatagrams > 0;
    longestGap = std::max(longestGap, unansweredDatagrams);
    unansweredDatagrams = 0;
    lastAnswer = now;
}

void AnswerWatch::noteOtherPacket(const Packet &packet, Clock::time_point now)
{
    lastOtherPacket = now;
    if (packet.kind != Packet::Data)
        return;
    const bool wasAnnouncing = std::exchange(isPeerAnnouncing, packet.number == 0);
    // Soon after the last answer the peer may be reacting to a packet from before a restart or an
    // outage.
    const bool isRecent =
        unansweredDatagrams <= maxUnansweredIfAlive / 2 && now - lastAnswer <= longestTrip;
    if (wasAnnouncing && !isPeerAnnouncing && !isRecent)
        doesPeerHear = true;
}
