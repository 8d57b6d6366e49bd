#pragma once

#include "Tool.h"

#include <algorithm>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>
#include <utmp.h>

// What stands on an xterm, as far as the line editor uses one: a character a column.
class Screen
{
public:
    int columns = 80;
    QByteArrayList rows{QByteArray()};

    void write(char byte)
    {
        if (byte == '\x1b')
            sequence = "\x1b";
        else if (sequence.isEmpty())
            put(byte);
        else if (byte == '[' || byte < '@')
            sequence += byte;
        else
            control(std::exchange(sequence, {}).mid(2), byte);
    }

private:
    void put(char c)
    {
        if (c == '\r')
            column = 0;
        else if (c == '\b')
            column = std::max(0, column - 1);
        else if (c == '\n' && ++row == rows.size())
            rows.append(QByteArray());
        else if (uchar(c) >= ' ') {
            if (column == columns) { // it waits in the last column until one more comes
                put('\r');
                put('\n');
            }
            rows[row] = rows[row].leftJustified(column + 1);
            rows[row][column++] = c;
        }
    }
    void control(const QByteArray &number, char kind)
    {
        column = std::min(column, columns - 1);
        if (kind == 'A') {
            row = std::max(0, row - std::max(1, number.toInt()));
        } else if (kind == 'J') {
            rows[row].truncate(column);
            rows.resize(row + 1);
        }
    }

    QByteArray sequence; // that is not complete
    int row = 0, column = 0;
};

// A program on a terminal of its own, in the folder of the tested programs.
class Terminal : public Program
{
public:
    // The command begins with variables of its environment, such as TERM.
    explicit Terminal(const QString &command)
    {
        int theirs = -1;
        if (::openpty(&ours, &theirs, nullptr, nullptr, nullptr) != 0)
            return;
        resize(screen.columns);
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
    void resize(int columns)
    {
        screen.columns = columns;
        const winsize size = {24, ushort(columns), 0, 0};
        ::ioctl(ours, TIOCSWINSZ, &size);
    }
    [[nodiscard]] const QByteArrayList &rows()
    {
        char bytes[4'096];
        for (ssize_t count; (count = ::read(ours, bytes, sizeof(bytes))) > 0;) {
            written.append(bytes, count);
            std::for_each_n(bytes, count, [this](char byte) { screen.write(byte); });
        }
        return screen.rows;
    }
    [[nodiscard]] bool shows(const char *text) { return rows().join('\n').contains(text); }
    // Without the ends of the rows.
    [[nodiscard]] QByteArray text() { return rows().join(); }

    QByteArray written; // by the program

private:
    int ours = -1;
    Screen screen;
};
