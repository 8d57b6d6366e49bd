#pragma once

#include <QByteArrayView>

#include <functional>
#include <memory>

class QIODevice;

// Compresses and inflates streams in the zlib format piece by piece, so that memory use does not
// depend on their size.
//
// Errors:  output from before an error is kept.
namespace ZlibStream {

// Receives the next piece of output. Returns false to stop. The bytes are valid during the call.
using Sink = std::function<bool(QByteArrayView)>;

enum class Result {
    Done,
    SourceFailed,
    SinkStopped,
    Interrupted // by QThread::requestInterruption() for the calling thread
};

// Compresses the rest of the source, which must be open for reading. An empty source gives no
// output at all. The pieces may have any size.
[[nodiscard]] Result deflate(QIODevice &source, const Sink &sink);

// Inflates one stream that arrives in pieces.
class Inflater
{
public:
    explicit Inflater(Sink sink);
    ~Inflater();
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    // Inflates a piece and passes the output to the sink before it returns. Returns false if no
    // more output can follow: the stream has ended or is corrupt, or the sink stopped.
    bool write(QByteArrayView piece);

    enum class End {
        Clean, // the stream has ended and its checksum matches the output
        WrongChecksum,
        Broken // the stream is cut short or corrupt, or the sink stopped
    };
    // Returns the state of the stream after all pieces so far.
    [[nodiscard]] End end() const;

private:
    struct State;
    const Sink sink;
    const std::unique_ptr<State> state;
};

} // namespace ZlibStream
