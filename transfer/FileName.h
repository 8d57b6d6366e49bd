#pragma once

#include <QByteArrayView>
#include <QString>

// Which names files can have.

// Returns whether a name denotes a visible file of its directory: not empty, no "/" or null
// character, no leading dot, and no character that file names cannot encode, because two such names
// would denote the same file.
[[nodiscard]] bool isPlainName(const QString &name);

inline constexpr qsizetype longestFileName = 255; // bytes; the limit of common file systems

// Returns whether a name in file system encoding cannot be held by a QString, because it is not
// UTF-8 or begins with a byte order mark. Converted, it would be another file's name.
[[nodiscard]] bool isForeignName(QByteArrayView name);
