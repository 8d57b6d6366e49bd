#pragma once

#include <QByteArray>
#include <QDir>
#include <QMap>

#include <algorithm>
#include <optional>

// Numbered files in one folder, each under a name that a template gives. Nothing is ever written
// outside the folder.
class NumberedFiles
{
public:
    enum class Existing { Keep, Overwrite };

    // The template holds {number} and must give plain names. The numbers continue after those of
    // the files that are there, or start at 1.
    [[nodiscard]] bool open(const QString &path, const QString &templateText, Existing existing);
    // Returns the number of the new file.
    [[nodiscard]] std::optional<qint64> add(const QByteArray &content);

    // add() in two steps. The first writes a file under a hidden name of the folder,
    [[nodiscard]] bool write(const QString &hidden, const QByteArray &content) const;
    // and the second gives it the next number and name.
    [[nodiscard]] std::optional<qint64> giveName(const QString &hidden);

    [[nodiscard]] const QDir &folder() const { return directory; }
    // Returns the name that the latest file was given.
    [[nodiscard]] const QString &latestFileName() const { return latestName; }
    // Continues the numbering after this number at least.
    void startBehind(qint64 number) { lastNumber = std::max(lastNumber, number); }
    // Returns the existing files with higher numbers.
    [[nodiscard]] QMap<qint64, QString> behind(qint64 number) const;

private:
    QDir directory;
    QString nameTemplate;
    Existing existingFiles = Existing::Keep;
    qint64 lastNumber = 0;
    QString latestName;
};
