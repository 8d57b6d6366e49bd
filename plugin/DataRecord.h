#pragma once

#include <QByteArray>
#include <QString>

// A data record: the data of one data frame of the bus.
//
//   field      encoding
//   kind       byte string: uint32 big-endian count, then the bytes; 0xFFFFFFFF is null
//   file name  uint32 big-endian count of bytes, then UTF-16 big-endian; 0xFFFFFFFF is null
//   payload    byte string
struct DataRecord
{
    QByteArray kind;
    QString fileName;
    QByteArray payload;

    // Parses leniently: a field that runs past the end is empty, and surplus bytes are ignored. To
    // avoid a copy, kind and payload point into `bytes`, which must outlive them.
    [[nodiscard]] static DataRecord read(const QByteArray &bytes);
    [[nodiscard]] QByteArray write() const;
};
