#pragma once

#include <QByteArrayView>

#include <functional>
#include <memory>

class QIODevice;

// Compressed streams in the zlib format, cut into pieces as they come, so that memory does not
// follow the size of what is compressed or inflated.
//
// Thread:  any one thread.
// Errors:  never throws, but for want of memory. What was decoded before an error is kept.
namespace ZlibStream {

// Takes the next piece of the result; false stops the work. The bytes are valid during the call.
using Sink = std::function<bool(QByteArrayView)>;

enum class Result {
    Done,
    SourceFailed, // it could not be read to its end
    SinkStopped,
    Interrupted // the calling thread is asked to end, see QThread::requestInterruption()
};

// Compresses all that the source, open for reading, still has. Nothing makes an empty stream of
// zero bytes. The pieces are of any size.
[[nodiscard]] Result deflate(QIODevice &source, const Sink &sink);

// Inflates one stream that arrives in pieces.
class Inflater
{
public:
    explicit Inflater(Sink sink);
    ~Inflater();
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    // False once nothing more can come out: the stream has ended or is corrupt, or the sink said
    // stop. All that the pieces so far contain has reached the sink then as ever.
    bool write(QByteArrayView piece);

    enum class End {
        Clean, // the stream has ended, and its checksum is that of what came out
        WrongChecksum, // the stream has ended, but it is another one
        Broken // the stream is cut short or corrupt, or the sink said stop
    };
    // What the pieces so far amount to.
    [[nodiscard]] End end() const;

private:
    struct State;
    const Sink sink;
    const std::unique_ptr<State> state;
};

} // namespace ZlibStream
