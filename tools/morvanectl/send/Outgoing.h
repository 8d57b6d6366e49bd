#pragma once

#include "FrameReader.h"
#include "SendOptions.h"

#include <optional>

// What a sender reads and how it becomes frames.

// A module drops the connection over which a longer body comes. The content is only part of it.
inline constexpr qint64 longestBody = FrameReader::maxAnnouncedBytes;
inline const QString standardInput = QStringLiteral("-"); // in place of a file name

// Returns the name of a file as messages show it.
[[nodiscard]] QString shownFile(const QString &file);
[[nodiscard]] qint64 bytesOfFiles(const QList<SendOptions::Item> &items);

// Reads a file or standard input to its end, but no further than what makes it too long for a
// frame. On failure prints the reason and returns nullopt.
[[nodiscard]] std::optional<QByteArray> readToEnd(const QString &path);

// Returns a whole data frame. If its body would be too long, prints an error and returns nothing.
[[nodiscard]] QByteArray makeFrame(
    const SendOptions &options, const SendOptions::Item &item, const QByteArray &content);
