#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

// Finds the line of each setting in a file, which QSettings does not tell, and remarks on lines
// that make no sense.
//
// The text is cut into lines as QSettings does it: an open quote or a backslash continues a value
// on the next line, and a semicolon ends it. Values come from QSettings only, never from here.
class SettingsText
{
public:
    struct Remark
    {
        int line;
        QString text;
    };

    explicit SettingsText(const QByteArray &text);

    // Returns the line of the key, or if it is missing of its group, or else 1. Of several lines
    // with the key, the last one counts. The group of keys outside any group is empty.
    [[nodiscard]] int lineOf(const QString &group, const QString &key = {}) const;
    [[nodiscard]] const QList<Remark> &remarks() const { return foundRemarks; }

private:
    struct Line
    {
        int firstNumber;
        QByteArray textWithoutComment;
        bool spansLines;
    };
    [[nodiscard]] Line takeLogicalLine();
    void read(const Line &line);
    void readGroup(const Line &line);
    void readKey(const Line &line, qsizetype equals);

    QByteArray rest;
    int nextNumber = 1;
    QString currentGroup;
    QHash<QString, int> lineNumbers; // by "Group/" and "Group/Key"
    QList<Remark> foundRemarks;
};
