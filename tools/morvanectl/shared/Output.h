#pragma once

#include <QByteArray>
#include <QString>

// Exit statuses of the tool. Success is 0.
inline constexpr int failureStatus = 1;
inline constexpr int usageStatus = 2;
inline constexpr int lossStatus = 3; // records that a module has forgotten were not kept

// One line to standard output or standard error, there when this returns. The first line that
// standard output does not take is complained about and ends the event loop with failureStatus.
void say(const QString &line);
void complain(const QString &line);

// The exit status of a process that would leave with this one: failure if anything that was said
// has not got out.
[[nodiscard]] int honestStatus(int status);
// Keeps the event loop running although nobody hears what is said any more.
void outliveOutput();

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
// Whether the terminal there can move its cursor; and show colours, which the person wants.
[[nodiscard]] bool isFullTerminal();
[[nodiscard]] bool hasColours();

// Whether standard output goes to the journal of the system.
[[nodiscard]] bool isJournal();

// The local time, as it stands in front of everything that happens.
[[nodiscard]] QString timeStamp();

// UTF-8 from somewhere else, fit for a terminal: control characters but line feed and tab are
// shown as escapes, and a very long text is cut off with a remark.
[[nodiscard]] QString printable(const QByteArray &text);

// "1 record", "2 records"
[[nodiscard]] QString counted(qint64 number, const QString &noun);
