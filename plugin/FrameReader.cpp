#include "FrameReader.h"

#include "BusFrame.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr qsizetype inboxBytes = 16'384; // a larger body does not pass through the inbox

} // namespace

FrameReader::FrameReader(ByteSource &byteSource, int &awaitedSize)
    : source(byteSource)
    , expectedSize(awaitedSize)
{
}

FrameReader::Result FrameReader::next(BusFrame &frame)
{
    if (expectedSize == 0) {
        const QByteArrayView length = takeSmall(sizeof(qint32));
        if (length.isEmpty())
            return Result::Incomplete;
        expectedSize = qFromBigEndian<qint32>(length.data());
    }
    if (expectedSize > inboxBytes)
        return nextLarge(frame);
    const qsizetype size = std::max(expectedSize, 0);
    const QByteArrayView body = takeSmall(size);
    if (body.size() < size)
        return Result::Incomplete;
    expectedSize = 0;
    frame.read(body);
    return Result::Frame;
}

// Assembles a large body as it arrives. The previous frame is freed first, so that two of them
// never coexist.
FrameReader::Result FrameReader::nextLarge(BusFrame &frame)
{
    frame = {};
    const qsizetype arrived = partialBody.size();
    const qsizetype missing = expectedSize - arrived;
    Q_ASSERT(missing > 0);
    const qsizetype waiting = inbox.size() - inboxOffset + source.bufferedBytes();
    if (expectedSize > maxAnnouncedBytes && waiting < missing)
        return Result::TooLong;
    partialBody.reserve(expectedSize); // memory that no byte has reached costs nothing
    partialBody.resize(expectedSize);
    partialBody.truncate(arrived + takeLarge(partialBody.data() + arrived, missing));
    if (partialBody.size() < expectedSize)
        return Result::Incomplete;
    expectedSize = 0;
    frame.takeOver(std::exchange(partialBody, {}));
    return Result::Frame;
}

// Returns a view that is valid until the next call. Returns an empty view and consumes nothing
// until `size` bytes are available.
QByteArrayView FrameReader::takeSmall(qsizetype size)
{
    Q_ASSERT(size <= inboxBytes);
    if (inbox.size() - inboxOffset < size)
        fillInbox();
    if (inbox.size() - inboxOffset < size)
        return {};
    return QByteArrayView(inbox).sliced(std::exchange(inboxOffset, inboxOffset + size), size);
}

void FrameReader::fillInbox()
{
    const qsizetype rest = inbox.size() - inboxOffset;
    Q_ASSERT(rest >= 0 && rest < inboxBytes);
    std::memmove(inbox.data(), inbox.constData() + inboxOffset, size_t(rest));
    inboxOffset = 0;
    inbox.resize(inboxBytes);
    const qint64 count = source.readBuffered(inbox.data() + rest, inboxBytes - rest);
    Q_ASSERT(count >= 0 && count <= inboxBytes - rest);
    inbox.truncate(rest + count);
}

// Copies up to `size` bytes, including any that arrive during the call; returns the count.
qsizetype FrameReader::takeLarge(char *to, qsizetype size)
{
    qsizetype count = std::min(size, inbox.size() - inboxOffset);
    std::memcpy(to, inbox.constData() + inboxOffset, size_t(count));
    inboxOffset += count;
    count += source.readBuffered(to + count, size - count);
    if (count < size)
        count += source.readDirect(to + count, size - count);
    Q_ASSERT(count <= size);
    return count;
}
