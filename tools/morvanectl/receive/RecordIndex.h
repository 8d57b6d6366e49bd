#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>

#include <optional>

// The index of a folder of records: what came when and over which link, so that a record which
// stands there twice can be told.
//
//   # after 12: number, link, bytes, BLAKE2b-256, file
//   000013 4 5 2d18...(64 hexadecimal digits) 000013
//
// A line for each record, in the order of arrival. The heading says behind which number it begins.
// The file grows at its end only; a full one is kept under the name of the previous one, and a new
// one begins.
//
// Owner:   RecordBatch, which holds the lock of the folder.
// Errors:  results say what failed, with the reason in errno.
class RecordIndex
{
public:
    static constexpr char fileName[] = ".index";
    static constexpr char previousName[] = ".index.1";

    struct Line
    {
        qint64 number = 0;
        qint64 link = 0; // 0: unknown, the file was there and the line was not
        qint64 bytes = 0;
        QByteArray digest; // binary
        QString file;
    };
    static constexpr auto algorithm = QCryptographicHash::Blake2b_256;

    // Continues the index of the folder, without what a crash has left unfinished at its end, or
    // begins one behind the number.
    [[nodiscard]] bool open(const QDir &folder, qint64 number);
    // Of the last line, or the heading's.
    [[nodiscard]] qint64 lastNumber() const { return newestNumber; }
    // The newest one that the end of the file tells.
    [[nodiscard]] qint64 lastLink() const { return newestLink; }

    void add(const Line &line);
    // Writes what was added, and brings it and the names in the folder to the disk.
    [[nodiscard]] bool flush();
    // Begins a new file if the old one is full. Nothing may be added and not flushed.
    [[nodiscard]] bool makeRoom();

private:
    [[nodiscard]] bool begin(qint64 number);
    [[nodiscard]] bool mend();
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
