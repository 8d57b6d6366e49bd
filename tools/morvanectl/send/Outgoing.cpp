#include "Outgoing.h"

#include "BusFrame.h"
#include "DataRecord.h"
#include "Output.h"

#include <QFile>
#include <QFileInfo>

#include <unistd.h>

using namespace Qt::StringLiterals;

QString shownFile(const QString &file)
{
    return file == standardInput ? u"standard input"_s : file;
}

std::optional<QByteArray> readToEnd(const QString &path)
{
    QFile file(path);
    const bool opened = path == standardInput
        ? file.open(STDIN_FILENO, QIODevice::ReadOnly | QIODevice::Unbuffered)
        : file.open(QIODevice::ReadOnly);
    QByteArray content(""); // not null, which would mean that there is no content
    // A pipe returns what it holds, so only an empty piece marks the end.
    for (QByteArray piece; opened && content.size() <= longestBody; content += piece) {
        piece = file.read(longestBody + 1 - content.size());
        if (piece.isEmpty())
            break;
    }
    if (opened && file.error() == QFileDevice::NoError)
        return content;
    complain(u"send: cannot read %1: %2"_s.arg(shownFile(path), file.errorString()));
    return std::nullopt;
}

QByteArray makeFrame(
    const SendOptions &options, const SendOptions::Item &item, const QByteArray &content)
{
    const DataRecord record{options.kind, item.name, content};
    QByteArray frame = BusFrame::makeData(options.dataVersion, record.write());
    if (frame.size() - qsizetype(sizeof(qint32)) <= longestBody)
        return frame;
    complain(u"send: %1 is too long: a frame carries at most %2 bytes"_s.arg(
        shownFile(item.file), QString::number(longestBody)));
    return {};
}

qint64 bytesOfFiles(const QList<SendOptions::Item> &items)
{
    qint64 bytes = 0;
    for (const SendOptions::Item &item : items)
        bytes += QFileInfo(item.file).size();
    return bytes;
}
