#include "Progress.h"

#include "Output.h"

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 firstDrawing = 1'000; // milliseconds; shorter work needs no bar
constexpr qint64 drawingInterval = 100; // milliseconds
constexpr int barWidth = 30; // characters
constexpr char clearLine[] = "\r\x1b[K";

} // namespace

Progress::Progress(qint64 totalBytes, Bar bar)
    : total(std::max<qint64>(totalBytes, 1))
    , isShown(bar == Bar::Shown && isFullTerminal())
    , nextDrawing(firstDrawing)
{
    running.start();
}

void Progress::update(qint64 done, const QString &remark)
{
    if (!isShown || running.elapsed() < nextDrawing)
        return;
    nextDrawing = running.elapsed() + drawingInterval;
    const double part = std::min(double(done) / double(total), 1.0);
    const int filled = int(part * barWidth);
    const QString bar = QString(filled, u'#') + QString(barWidth - filled, u'.');
    const QByteArray line =
        u"[%1] %2 %  %3"_s.arg(bar, QString::number(int(part * 100)), remark).toUtf8();
    std::fprintf(stdout, "%s%s", clearLine, line.constData());
    std::fflush(stdout);
    isBarOnScreen = true;
}

void Progress::sayAbove(const QString &line)
{
    clear();
    say(line);
}

void Progress::clear()
{
    if (!isBarOnScreen)
        return;
    isBarOnScreen = false;
    std::fputs(clearLine, stdout);
    std::fflush(stdout);
}
