#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <dirent.h>
#include <memory>
#include <sys/stat.h>

// System calls on files, each with the checks and the second attempts that it needs. On failure
// they leave the reason in errno.

inline constexpr mode_t newFileMode = 0666; // less the umask

// Returns whether an entry of an open directory is a regular file, or a link to one.
[[nodiscard]] bool isRegularFile(int directory, const dirent &entry);

// Opens a regular file for reading and fills info. Returns -1 on failure and for anything that is
// not a regular file.
[[nodiscard]] int openRegularFile(const QString &path, struct stat &info);

using OpenFolder = std::unique_ptr<DIR, int (*)(DIR *)>;
// Opens a folder to read its entries with readdir(). Returns nothing on failure.
[[nodiscard]] OpenFolder openFolder(const QByteArray &path);

// Writes all bytes, in as many calls as it takes.
[[nodiscard]] bool writeAll(int file, QByteArrayView bytes);

// Renames a file unless the new name is taken.
[[nodiscard]] bool renameWithoutReplacing(const QByteArray &from, const QByteArray &to);
// The same for a file of an open folder.
[[nodiscard]] bool renameWithoutReplacing(int folder, const char *from, const char *to);
