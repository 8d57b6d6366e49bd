#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <sys/stat.h>

// A spool file that is open for reading, even if it is renamed or removed meanwhile.
//
// Errors:  isOpen() returns false if the file cannot be sent.
class SpoolFile
{
public:
    // Tells a file from another one that has replaced it under the same name.
    //
    // Compares size and time. For a file that was changed shortly before the mark was taken this is
    // not enough, because a file system gives two changes within one tick of its clock the same
    // time. Only then is the inode compared too, because some file systems change inode numbers.
    struct Mark
    {
        quint64 inode;
        qint64 modified; // nanoseconds since the epoch
        qint64 size; // bytes
        bool isSettled; // changed long enough before the mark was taken
        bool operator==(const Mark &other) const;
    };
    [[nodiscard]] static Mark markOf(const struct stat &info);

    explicit SpoolFile(const QString &path);
    [[nodiscard]] bool isOpen() const { return file.isOpen(); }
    [[nodiscard]] const Mark &mark() const { return fileMark; }
    // Returns the content, or nullopt if it cannot be read. Leaves headerBytes uninitialised bytes
    // in front of the content for the caller to fill, which saves a copy.
    [[nodiscard]] std::optional<QByteArray> read(qsizetype headerBytes = 0) const;

private:
    Mark fileMark{};
    Descriptor file;
};
