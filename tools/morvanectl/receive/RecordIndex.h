#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>

#include <optional>

// The index of a folder of records. It lists them in the order of arrival, each with its link and
// its digest, which shows the records that came twice.
//
//   # after 12: number, link, bytes, BLAKE2b-256, file
//   000013 4 5 2d18...(64 hexadecimal digits) 000013
//
// The heading states the number of the last record before this file. Lines are only appended. A
// full file is renamed and replaces the previous one, and a new file begins.
//
// The caller holds the lock of the folder.
class RecordIndex
{
public:
    static constexpr char fileName[] = ".index";
    static constexpr char previousName[] = ".index.1";

    struct Line
    {
        qint64 number = 0;
        qint64 link = 0; // 0: unknown, as the file was found without a line
        qint64 bytes = 0;
        QByteArray digest; // binary
        QString file;
    };
    static constexpr auto algorithm = QCryptographicHash::Blake2b_256;

    // Continues the index of the folder after removing a line that a crash has cut short. If there
    // is no index, begins one after `number`.
    [[nodiscard]] bool open(const QDir &folder, qint64 number);
    // Returns the number of the last line, or the heading's if there is no line.
    [[nodiscard]] qint64 lastNumber() const { return newestNumber; }
    // Returns the highest link number among the lines at the end of the file.
    [[nodiscard]] qint64 lastLink() const { return newestLink; }

    void add(const Line &line);
    // Writes the added lines, and flushes them and the names in the folder to the disk.
    [[nodiscard]] bool flush();
    // Requires that all added lines are flushed.
    [[nodiscard]] bool startNewFileIfFull();

private:
    [[nodiscard]] bool begin(qint64 number);
    [[nodiscard]] bool dropUnfinishedEnd();
    void noteLinks(const QByteArray &lines);
    [[nodiscard]] QByteArray path(const char *name) const;

    QDir directory;
    Descriptor folder;
    Descriptor file;
    qint64 fileSize = 0;
    qint64 newestNumber = 0;
    qint64 newestLink = 0;
    QByteArray added;
};
