#pragma once

#include <QByteArray>
#include <QString>

// Exit statuses of the tool. Success is 0.
inline constexpr int failureStatus = 1;
inline constexpr int usageStatus = 2;
inline constexpr int lossStatus = 3; // records that a module has forgotten were not kept

// Print a line to standard output or standard error and flush it. The first line that standard
// output does not take is reported on standard error and ends the event loop with failureStatus.
void say(const QString &line);
void complain(const QString &line);

// Returns failureStatus instead of 0 if any output was lost, and other statuses as they are.
[[nodiscard]] int honestStatus(int status);
// Keeps the event loop running when standard output fails.
void outliveOutput();

// The prompt being edited: hidden while a line is printed, then redrawn.
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
// Whether that terminal can move its cursor; whether it shows colours and NO_COLOR is not set.
[[nodiscard]] bool isFullTerminal();
[[nodiscard]] bool hasColours();

// Whether standard output goes to the journal of the system.
[[nodiscard]] bool isJournal();

// Returns the local time, which begins each line about an event.
[[nodiscard]] QString timeStamp();

// Makes foreign UTF-8 safe to print: escapes control characters except line feed and tab, and cuts
// off a very long text with a remark.
[[nodiscard]] QString printable(const QByteArray &text);

// "1 record", "2 records"
[[nodiscard]] QString counted(qint64 number, const QString &noun);
