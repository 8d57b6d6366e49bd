#include "ZlibStream.h"

#include <QIODevice>
#include <QThread>

#include <array>
#include <limits>
#include <new>
#include <zlib.h>

namespace {

constexpr int compressionLevel = 7;
constexpr qsizetype pieceSize = 65'536; // bytes of one read, and of one call of the sink

// zlib has one code for all that is wrong with a stream, and tells by this text.
constexpr char wrongChecksum[] = "incorrect data check";

using Piece = std::array<char, pieceSize>;

uchar *bytesOf(const char *data)
{
    // zlib's interface takes its input as non-const, but only reads it.
    return reinterpret_cast<uchar *>(const_cast<char *>(data));
}

void setInput(z_stream &stream, QByteArrayView piece)
{
    Q_ASSERT(quint64(piece.size()) <= std::numeric_limits<uInt>::max());
    stream.next_in = bytesOf(piece.data());
    stream.avail_in = uInt(piece.size());
}

void setOutput(z_stream &stream, Piece &piece)
{
    stream.next_out = bytesOf(piece.data());
    stream.avail_out = uInt(piece.size());
}

QByteArrayView outputOf(const z_stream &stream, const Piece &piece)
{
    return QByteArrayView(piece.data(), pieceSize - qsizetype(stream.avail_out));
}

// Returns the state of the stream after inflate() has returned code.
ZlibStream::Inflater::End endFrom(int code, const char *message)
{
    using End = ZlibStream::Inflater::End;
    if (code == Z_STREAM_END)
        return End::Clean;
    const bool isChecksum = code == Z_DATA_ERROR && qstrcmp(message, wrongChecksum) == 0;
    return isChecksum ? End::WrongChecksum : End::Broken;
}

class Deflater
{
public:
    explicit Deflater(const ZlibStream::Sink &takeOutput)
        : sink(takeOutput)
    {
        if (deflateInit(&stream, compressionLevel) != Z_OK)
            throw std::bad_alloc();
    }
    ~Deflater() { deflateEnd(&stream); }
    Deflater(const Deflater &) = delete;
    Deflater &operator=(const Deflater &) = delete;

    // Returns false if the sink stopped. flush is Z_NO_FLUSH, or Z_FINISH for the last piece.
    [[nodiscard]] bool write(QByteArrayView piece, int flush)
    {
        setInput(stream, piece);
        do {
            setOutput(stream, output);
            ::deflate(&stream, flush);
            const QByteArrayView made = outputOf(stream, output);
            if (!made.isEmpty() && !sink(made))
                return false;
        } while (stream.avail_out == 0);
        return true;
    }

private:
    const ZlibStream::Sink &sink;
    z_stream stream = {};
    Piece output;
};

} // namespace

ZlibStream::Result ZlibStream::deflate(QIODevice &source, const Sink &sink)
{
    const auto deflater = std::make_unique<Deflater>(sink);
    const auto input = std::make_unique<Piece>();
    bool isEmpty = true;
    for (;;) {
        if (QThread::currentThread()->isInterruptionRequested())
            return Result::Interrupted;
        const qint64 count = source.read(input->data(), pieceSize);
        if (count < 0)
            return Result::SourceFailed;
        if (count == 0)
            break;
        isEmpty = false;
        if (!deflater->write(QByteArrayView(input->data(), count), Z_NO_FLUSH))
            return Result::SinkStopped;
    }
    if (isEmpty)
        return Result::Done;
    return deflater->write({}, Z_FINISH) ? Result::Done : Result::SinkStopped;
}

struct ZlibStream::Inflater::State
{
    z_stream stream = {};
    Piece output;
    bool isOpen = true;
    End end = End::Broken;
};

ZlibStream::Inflater::Inflater(Sink takeOutput)
    : sink(std::move(takeOutput))
    , state(std::make_unique<State>())
{
    if (inflateInit(&state->stream) != Z_OK)
        throw std::bad_alloc();
}

ZlibStream::Inflater::~Inflater()
{
    inflateEnd(&state->stream);
}

bool ZlibStream::Inflater::write(QByteArrayView piece)
{
    z_stream &stream = state->stream;
    setInput(stream, piece);
    while (state->isOpen) {
        setOutput(stream, state->output);
        const int code = inflate(&stream, Z_NO_FLUSH);
        if (code == Z_BUF_ERROR) // the piece is used up
            break;
        const QByteArrayView made = outputOf(stream, state->output);
        const bool isTaken = made.isEmpty() || sink(made);
        state->isOpen = isTaken && code == Z_OK;
        if (isTaken)
            state->end = endFrom(code, stream.msg);
    }
    return state->isOpen;
}

ZlibStream::Inflater::End ZlibStream::Inflater::end() const
{
    return state->end;
}
