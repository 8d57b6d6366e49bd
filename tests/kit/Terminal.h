#pragma once

#include <QByteArrayList>
#include <QCoreApplication>
#include <QDir>
#include <QProcess>

#include <algorithm>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

// What stands on an xterm, as far as the line editor uses one: a character a column.
class Screen
{
public:
    int columns = 80;
    QByteArrayList rows{QByteArray()};

    void write(char byte)
    {
        if (byte == '\x1b') {
            sequence = QByteArray(1, byte);
        } else if (sequence.isEmpty()) {
            put(byte);
        } else if (byte == '[' || byte < '@') {
            sequence += byte;
        } else {
            control(sequence.sliced(qMin<qsizetype>(2, sequence.size())), byte);
            sequence.clear();
        }
    }

private:
    void put(char c)
    {
        if (c == '\r')
            column = 0;
        else if (c == '\b')
            column = std::max(0, column - 1);
        else if (c == '\n')
            down();
        else if (uchar(c) >= ' ') {
            if (column == columns) { // it waits in the last column until one more comes
                column = 0;
                down();
            }
            rows[row] = rows[row].leftJustified(column + 1);
            rows[row][column++] = c;
        }
    }
    void down()
    {
        if (++row == rows.size())
            rows.append(QByteArray());
    }
    void control(const QByteArray &number, char kind)
    {
        const int count = std::max(1, number.toInt());
        column = std::min(column, columns - 1);
        if (kind == 'A')
            row = std::max<qsizetype>(0, row - count);
        else if (kind == 'C')
            column = std::min(columns - 1, column + count);
        else if (kind == 'D')
            column = std::max(0, column - count);
        else if (kind == 'K' || kind == 'J')
            rows[row].truncate(column);
        else if (kind == 'P')
            rows[row].remove(column, count);
        else if (kind == '@')
            rows[row].insert(column, QByteArray(count, ' '));
        if (kind == 'J')
            rows.resize(row + 1);
    }

    QByteArray sequence; // that is not complete
    qsizetype row = 0;
    int column = 0;
};

// A program on a terminal of its own, in the folder of the tested programs.
class Terminal : public QProcess
{
public:
    Terminal(const QStringList &command, const char *kind)
    {
        int theirs = -1;
        const winsize size = {24, 80, 0, 0};
        if (::openpty(&ours, &theirs, nullptr, nullptr, &size) != 0)
            return;
        ::fcntl(ours, F_SETFL, O_NONBLOCK);
        setWorkingDirectory(QDir::tempPath());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("TERM"), QString::fromLatin1(kind));
        environment.insert(QStringLiteral("PATH"),
            QCoreApplication::applicationDirPath() + u':'
                + environment.value(QStringLiteral("PATH")));
        setProcessEnvironment(environment);
        setChildProcessModifier([theirs] {
            ::setsid();
            ::ioctl(theirs, TIOCSCTTY, 0);
            for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
                ::dup2(theirs, descriptor);
        });
        start(QStringLiteral("env"), command);
        waitForStarted();
        ::close(theirs);
    }
    ~Terminal() override
    {
        kill();
        waitForFinished();
        ::close(ours);
    }

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
