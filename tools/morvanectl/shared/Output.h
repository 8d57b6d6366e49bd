#pragma once

#include <QByteArray>
#include <QString>

// Exit statuses of the tool. Success is 0.
inline constexpr int failureStatus = 1;
inline constexpr int usageStatus = 2;
inline constexpr int lossStatus = 3;

// Prints a line to standard output and flushes it. The first failure is reported on standard error
// and ends the event loop with failureStatus.
void say(const QString &line);
// Prints a line to standard error.
void complain(const QString &line);

// Returns failureStatus instead of 0 if any output was lost, and other statuses as they are.
[[nodiscard]] int honestStatus(int status);
// Keeps the event loop running when standard output fails.
void outliveOutput();

// A line that a person is editing. It is hidden while another line is printed.
class OpenLine
{
public:
    virtual void hide() = 0;
    virtual void show() = 0;

protected:
    ~OpenLine() = default;
};
// Null stands for none.
void setOpenLine(OpenLine *line);

[[nodiscard]] bool isTerminal();
// Returns whether standard output is a terminal that can move its cursor.
[[nodiscard]] bool isFullTerminal();
// Returns whether standard output is such a terminal and NO_COLOR is not set.
[[nodiscard]] bool hasColours();
// Returns whether standard output goes to the journal of the system.
[[nodiscard]] bool isJournal();

// Returns the local time for the beginning of a line about an event.
[[nodiscard]] QString timeStamp();

// Makes foreign UTF-8 safe to print: escapes control characters except line feed and tab, and cuts
// off a very long text.
[[nodiscard]] QString printable(const QByteArray &text);

// Returns text such as "1 record" or "2 records".
[[nodiscard]] QString counted(qint64 number, const QString &noun);
