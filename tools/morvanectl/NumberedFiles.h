#pragma once

#include <QByteArray>
#include <QDir>

#include <optional>

// Numbered files in one folder.
//
// Errors:  results say what failed; nothing is ever written outside the folder.
class NumberedFiles
{
public:
    // The numbers go on behind those that are there, or start again and overwrite.
    [[nodiscard]] bool open(const QString &path, bool overwriting);
    // The number of the new file; nothing if it could not be written.
    [[nodiscard]] std::optional<qint64> add(const QByteArray &content);

private:
    [[nodiscard]] QString pathOf(qint64 number) const;

    QDir directory;
    bool overwrite = false;
    qint64 last = 0; // number given
};

// The number as it stands in the file's name.
[[nodiscard]] QString paddedNumber(qint64 number);
