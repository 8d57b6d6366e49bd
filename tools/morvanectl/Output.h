#pragma once

#include <QByteArray>
#include <QString>

// Exit statuses of the tool. Success is 0.
inline constexpr int failureStatus = 1;
inline constexpr int usageStatus = 2;

// One line to standard output or standard error, there when this returns.
void say(const QString &line);
void complain(const QString &line);

// A line on the terminal that is not finished yet makes way for each of them.
class OpenLine
{
public:
    virtual void hide() = 0;
    virtual void show() = 0;

protected:
    ~OpenLine() = default;
};
void setOpenLine(OpenLine *line); // null: there is none

// Whether a person is looking at standard output.
[[nodiscard]] bool isTerminal();

// The local time, as it stands in front of everything that happens.
[[nodiscard]] QString timeStamp();

// UTF-8 from somewhere else, fit for a terminal: control characters but line feed and tab are
// shown as escapes, and a very long text is cut off with a remark.
[[nodiscard]] QString printable(const QByteArray &text);

// "1 record", "2 records"
[[nodiscard]] QString counted(qint64 number, const QString &noun);
