#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

// Where the settings of a file stand, which QSettings does not tell.
//
// The text is cut into lines as QSettings does it: an open quote or a backslash carries a value on
// over the end of its line, a semicolon ends it. Only places are taken from here, never values.
//
// Owner:   whoever reports on a settings file.
// Errors:  never throws. Lines that make no sense become remarks.
class SettingsText
{
public:
    struct Remark
    {
        int line;
        QString text;
    };

    explicit SettingsText(const QByteArray &text);

    // Where the key stands that counts, the last one; else its group, else the first line. Names
    // outside of any group have an empty one.
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
