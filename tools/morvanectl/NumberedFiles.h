#pragma once

#include <QByteArray>
#include <QDir>

#include <optional>

// Numbered files in one folder, each under a name that a template gives.
//
// Errors:  results say what failed; nothing is ever written outside the folder.
class NumberedFiles
{
public:
    // The names come from a template with {number}, which must give plain names. The numbers go on
    // behind those of such names that are there, or start again and overwrite.
    [[nodiscard]] bool open(const QString &path, const QString &nameTemplate, bool overwriting);
    // The number of the new file; nothing if it could not be written.
    [[nodiscard]] std::optional<qint64> add(const QByteArray &content);

private:
    [[nodiscard]] QString nextPath();

    QDir directory;
    QString names; // template
    bool overwrite = false;
    qint64 last = 0; // number given
};
