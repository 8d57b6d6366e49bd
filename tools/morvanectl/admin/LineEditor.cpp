#include "LineEditor.h"

#include "StopSignals.h"

#include <QByteArrayList>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

namespace {

LineEditor *current = nullptr; // libedit's callbacks take no argument
constexpr char clearFromHere[] = "\r\x1b[J";
constexpr int escapedWidth = 2; // as in ^X
constexpr int usualColumns = 80;

bool isHungUp()
{
    pollfd terminal = {STDIN_FILENO, POLLIN, 0};
    return ::poll(&terminal, 1, 0) > 0 && (terminal.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

int editorColumns()
{
    int rows = 0, columns = 0;
    ::rl_get_screen_size(&rows, &columns);
    return columns > 0 ? columns : usualColumns;
}

int windowColumns()
{
    winsize size = {};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                             : editorColumns();
}

} // namespace

LineEditor::LineEditor(const QByteArray &promptText)
    : prompt(promptText)
    , keys(STDIN_FILENO, QSocketNotifier::Read)
{
    current = this;
    ::rl_catch_signals = 0; // its handlers would change what they interrupt
    connect(&keys, &QSocketNotifier::activated, this, &LineEditor::readKey);
    ::rl_attempted_completion_function = &LineEditor::complete;
    open();
    setOpenLine(this);
    onSignals({SIGWINCH, SIGTSTP, SIGCONT}, this, [this](int signal) {
        if (signal == SIGTSTP)
            return suspend();
        signal == SIGCONT ? resume() : fitWindow();
    });
}

LineEditor::~LineEditor()
{
    setOpenLine(nullptr);
    hide();
    ::rl_callback_handler_remove();
    current = nullptr;
}

bool LineEditor::isPossible()
{
    return ::isatty(STDIN_FILENO) == 1 && isFullTerminal();
}

void LineEditor::open()
{
    isLineOpen = true;
    ::rl_callback_handler_install(prompt.constData(), &LineEditor::take);
    std::fflush(stdout);
}

void LineEditor::readKey()
{
    if (isHungUp()) // libedit would neither read nor report it
        return take(nullptr);
    ::rl_callback_read_char();
    if (isLineOpen || !keys.isEnabled())
        return;
    // After each line libedit leaves the terminal without an editor until the next key, and would
    // miss an end of input before that.
    ::rl_callback_handler_remove();
    open();
}

void LineEditor::take(char *line)
{
    const std::unique_ptr<char, decltype(&std::free)> owned(line, std::free);
    LineEditor *const editor = current;
    if (!line) {
        editor->keys.setEnabled(false);
        Q_EMIT editor->ended();
        return;
    }
    if (*line != '\0')
        ::add_history(line);
    editor->isLineOpen = false;
    Q_EMIT editor->typed(QByteArray(line));
}

// libedit asks for one match after the other and frees them.
char **LineEditor::complete(const char *word, int start, int)
{
    static QByteArrayList matches;
    matches.clear();
    ::rl_attempted_completion_over = 1; // or libedit offers file names
    const QString before = QString::fromUtf8(::rl_line_buffer, start).simplified();
    if (!current->candidates)
        return nullptr;
    for (const QString &candidate : current->candidates(before)) {
        if (candidate.toUtf8().startsWith(word))
            matches.append(candidate.toUtf8());
    }
    return ::rl_completion_matches(word, [](const char *, int) {
        return matches.isEmpty() ? nullptr : ::strdup(matches.takeFirst().constData());
    });
}

void LineEditor::hide()
{
    hideBelow(rowOfCursor(editorColumns()));
}

// Clears the line, given the row in it where the cursor is.
void LineEditor::hideBelow(int row)
{
    if (isLineOpen && row > 0)
        std::fprintf(stdout, "\x1b[%dA", row);
    if (isLineOpen)
        std::fputs(clearFromHere, stdout);
    std::fflush(stdout);
}

// libedit does not tell in which row of the line the cursor is.
int LineEditor::rowOfCursor(int columns) const
{
    int row = 0, column = 0;
    const QByteArray before = prompt + QByteArray(::rl_line_buffer, isLineOpen ? ::rl_point : 0);
    for (const uint character : QString::fromUtf8(before).toUcs4()) {
        const int width = ::wcwidth(wchar_t(character));
        column += width < 0 ? escapedWidth : width;
        if (column < columns)
            continue;
        ++row;
        column = column > columns ? width : 0; // a wide character moves to the next row as a whole
    }
    return row;
}

// Some terminals wrap their lines anew when they are resized, and others do not. Clears the smaller
// number of rows: a leftover is ugly, but no earlier output may disappear.
void LineEditor::fitWindow()
{
    hideBelow(std::min(rowOfCursor(editorColumns()), rowOfCursor(windowColumns())));
    ::rl_resize_terminal();
    show();
}

void LineEditor::suspend()
{
    hide();
    ::rl_deprep_terminal();
    sigset_t stop, pending;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
    ::raise(SIGTSTP); // returns on SIGCONT; at once if no shell can stop the process
    ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::sigpending(&pending);
    if (!sigismember(&pending, SIGCONT))
        resume();
}

// Draws the line anew where the cursor is, because the shell has used the terminal meanwhile.
void LineEditor::resume()
{
    ::rl_deprep_terminal(); // or preparing it again would have no effect
    ::rl_prep_terminal(0);
    hideBelow(0);
    ::rl_resize_terminal();
    show();
}

void LineEditor::show()
{
    if (isLineOpen)
        ::rl_forced_update_display();
}
