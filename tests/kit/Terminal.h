#pragma once

#include "Tool.h"

#include <algorithm>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>
#include <utmp.h>

// A program on an xterm of its own, in the folder of the tested programs. The line editor uses few
// of the terminal's sequences, and here every character takes one column.
class Terminal : public Program
{
public:
    // The command begins with variables of its environment, such as TERM.
    explicit Terminal(const QString &command)
    {
        int theirs = -1;
        if (::openpty(&ours, &theirs, nullptr, nullptr, nullptr) != 0)
            return;
        resize(80);
        ::fcntl(ours, F_SETFL, O_NONBLOCK);
        setWorkingDirectory(QCoreApplication::applicationDirPath());
        setChildProcessModifier([theirs] { ::login_tty(theirs); });
        startCommand(QStringLiteral("env ") + command);
        waitForStarted();
        ::close(theirs);
    }
    ~Terminal() override { ::close(ours); }

    [[nodiscard]] bool isThere() const { return ours >= 0; }
    void type(const QByteArray &keys) const
    {
        if (::write(ours, keys.constData(), size_t(keys.size())) != keys.size())
            qFatal("the terminal takes nothing");
    }
    void resize(int wanted)
    {
        columns = wanted;
        const winsize size = {24, ushort(columns), 0, 0};
        ::ioctl(ours, TIOCSWINSZ, &size);
    }
    [[nodiscard]] const QByteArrayList &rows()
    {
        for (char byte; ::read(ours, &byte, 1) == 1; draw(byte))
            written += byte;
        return screen;
    }
    [[nodiscard]] bool shows(const char *text) { return rows().join('\n').contains(text); }
    // Without the ends of the rows.
    [[nodiscard]] QByteArray text() { return rows().join(); }

    QByteArray written; // by the program

private:
    void draw(char byte)
    {
        if (byte == '\x1b' || !sequence.isEmpty()) {
            if (!sequence.isEmpty() && byte != '[' && byte >= '@')
                obey(std::exchange(sequence, {}).mid(2), byte);
            else
                sequence += byte;
        } else if (byte == '\r') {
            column = 0;
        } else if (byte == '\b') {
            column = std::max(0, column - 1);
        } else if (byte == '\n' && ++row == screen.size()) {
            screen.append(QByteArray());
        } else if (uchar(byte) >= ' ') {
            if (column == columns) { // it waits in the last column until one more comes
                draw('\r');
                draw('\n');
            }
            screen[row] = screen[row].leftJustified(column + 1);
            screen[row][column++] = byte;
        }
    }
    void obey(const QByteArray &parameter, char kind)
    {
        column = std::min(column, columns - 1);
        if (kind == 'A') {
            row = std::max(0, row - std::max(1, parameter.toInt()));
        } else if (kind == 'J') {
            screen[row].truncate(column);
            screen.resize(row + 1);
        }
    }

    int ours = -1, columns = 0, row = 0, column = 0;
    QByteArrayList screen{QByteArray()};
    QByteArray sequence; // that is not complete
};
