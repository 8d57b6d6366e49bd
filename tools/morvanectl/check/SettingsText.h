#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

// Knows the line of each setting in a file, which QSettings does not tell.
//
// The text is cut into lines as QSettings does it: an open quote or a backslash carries a value on
// over the end of its line, a semicolon ends it. Only places are taken from here, never values.
//
// Owner:   whoever reports on a settings file.
// Errors:  lines that make no sense become remarks.
class SettingsText
{
public:
    struct Remark
    {
        int line;
        QString text;
    };

    explicit SettingsText(const QByteArray &text);

    // Returns the line of the key (of the last one, which counts), else of its group, else 1. The
    // group of names outside any group is empty.
    [[nodiscard]] int lineOf(const QString &group, const QString &key = {}) const;
    [[nodiscard]] const QList<Remark> &remarks() const { return allRemarks; }

private:
    struct Line
    {
        int number; // of its first one in the file
        QByteArray text; // without a comment
        bool spansLines;
    };
    [[nodiscard]] Line takeLine();
    void read(const Line &line);
    void readGroup(const Line &line);
    void readKey(const Line &line, qsizetype equals);

    QByteArray rest;
    int nextNumber = 1;
    QString currentGroup;
    QHash<QString, int> places; // of groups, "Group/", and keys, "Group/Key"
    QList<Remark> allRemarks;
};
