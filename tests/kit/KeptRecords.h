#pragma once

#include "Journal.h"
#include "SpoolLayout.h"

#include <QDir>
#include <QDirIterator>

#include <fcntl.h>

// The contents of all records that a spool directory holds, by name: as files, on their way to the
// peer, or in journals. Lost data is lost for good, so whatever lies hidden counts too.
inline QMultiMap<QString, QByteArray> keptRecords(
    const QString &spool, QDirIterator::IteratorFlags flags = QDirIterator::Subdirectories)
{
    QMultiMap<QString, QByteArray> records;
    for (QDirIterator it(spool, QDir::Files | QDir::Hidden, flags); it.hasNext();) {
        QFile file(it.next());
        if (it.fileName() != QLatin1StringView(SpoolLayout::journalFile)) {
            if (file.open(QIODevice::ReadOnly))
                records.insert(it.fileName(), file.readAll());
            continue;
        }
        const Descriptor folder(::open(qPrintable(it.fileInfo().path()), O_RDONLY | O_DIRECTORY));
        Journal journal;
        if (!journal.open(folder.get()))
            continue;
        journal.forEach([&](const Journal::Entry &entry) {
            records.insert(QString::fromUtf8(entry.name), entry.content.toByteArray());
            return true;
        });
    }
    return records;
}

// The content of the numbered records of a folder, in order.
inline QByteArrayList recordsIn(
    const QString &folder, QDirIterator::IteratorFlags flags = QDirIterator::Subdirectories)
{
    QByteArrayList records;
    for (const auto [name, content] : keptRecords(folder, flags).asKeyValueRange()) {
        if (name.size() == 6 && name.front().isDigit())
            records.append(content);
    }
    return records;
}

// Has the journals of a spool seem to be from before the last start of the system; how many.
[[nodiscard]] inline int ageJournals(
    const QString &spool, const QByteArrayList &identity = {Journal::here().boot})
{
    int count = 0;
    for (QDirIterator it(spool, {QLatin1StringView(SpoolLayout::journalFile)},
             QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();) {
        QFile file(it.next());
        const QByteArray head = file.open(QIODevice::ReadWrite) ? file.read(4'096) : "";
        count += std::all_of(identity.begin(), identity.end(), [&](const QByteArray &id) {
            return file.seek(head.indexOf(id)) && file.write("another") > 0;
        });
    }
    return count;
}
