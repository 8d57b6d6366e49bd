#pragma once

#include <QByteArray>
#include <QByteArrayView>

struct BusFrame;

// The bytes of one connection.
class ByteSource
{
public:
    virtual ~ByteSource() = default;

    // Bytes that readBuffered() would return.
    [[nodiscard]] virtual qint64 bufferedBytes() const = 0;
    // Copies up to `size` bytes and returns the count.
    virtual qint64 readBuffered(char *to, qint64 size) = 0;
    // Called when nothing is buffered: copies up to `size` bytes that have arrived since, past the
    // buffer, which saves a copy of them. Returns the count.
    virtual qint64 readDirect(char *, qint64) { return 0; }
};

// Cuts the byte stream of one connection into frames, in whatever pieces it arrives.
//
// Memory: 16 KiB, and the announced size of a larger body while that body arrives.
class FrameReader
{
public:
    enum class Result {
        Frame,
        Incomplete, // call again when more bytes have arrived
        TooLong // over maxAnnouncedBytes are announced and have not all arrived: cut the peer off
    };
    // Bounds the memory that a peer can claim by announcing a body. A longer body is read only if
    // all of it has arrived already, so a sender must not rely on that.
    static constexpr int maxAnnouncedBytes = 50'000'000;

    // `expectedSize` is the length of the body that is awaited, 0 while a length is.
    FrameReader(ByteSource &source, int &expectedSize);

    // Reads the next frame. A length of 0 or less gives an empty one. `frame` may be one object for
    // all calls, so that small frames share its memory.
    [[nodiscard]] Result next(BusFrame &frame);

private:
    [[nodiscard]] Result nextLarge(BusFrame &frame);
    [[nodiscard]] QByteArrayView takeSmall(qsizetype size);
    [[nodiscard]] qsizetype takeLarge(char *to, qsizetype size);
    void fillInbox();

    ByteSource &source;
    int &expectedSize;
    // Filled with many small frames at a time: each read of a socket costs more than everything
    // else that is done with one of them.
    QByteArray inbox;
    qsizetype inboxOffset = 0; // of the first byte that belongs to no frame yet
    QByteArray partialBody; // of a body larger than the inbox
};
