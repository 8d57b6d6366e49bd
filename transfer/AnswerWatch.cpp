#include "AnswerWatch.h"

#include <algorithm>

bool AnswerWatch::isInVain(char requestId, Clock::time_point now)
{
    if (requestId != id) {
        id = requestId;
        isAnnounced = false;
    }
    if (!isAnnounced)
        return false;
    ++unanswered;
    const bool isAlive = now - lastSeen < patienceIfAlive;
    const std::chrono::milliseconds least =
        isAlive ? std::min<std::chrono::milliseconds>(patience, patienceIfAlive) : patience;
    const Clock::duration limit =
        isHeard ? least : std::max<Clock::duration>(least, lastAnswer - firstAnswer);
    if (unanswered <= (isAlive ? maxUnansweredIfAlive : maxUnanswered) || now - lastAnswer <= limit)
        return false;
    isAnnounced = false;
    return true;
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
    if (wasAnnouncing && !isPeerAnnouncing && unanswered > maxUnansweredIfAlive / 2)
        isHeard = true;
}
