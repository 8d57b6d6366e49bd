#include "LineEditor.h"

#include <QByteArrayList>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace {

LineEditor *current = nullptr; // the library's callback has no argument for it
constexpr char toAnEmptyLine[] = "\r\x1b[K";

bool isHungUp()
{
    pollfd terminal = {STDIN_FILENO, POLLIN, 0};
    return ::poll(&terminal, 1, 0) > 0 && (terminal.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

} // namespace

LineEditor::LineEditor(const QByteArray &promptText)
    : prompt(promptText)
    , keys(STDIN_FILENO, QSocketNotifier::Read)
{
    current = this;
    ::rl_catch_signals = 0; // its handlers change what they have interrupted
    connect(&keys, &QSocketNotifier::activated, this, &LineEditor::readKey);
    ::rl_attempted_completion_function = &LineEditor::complete;
    open();
    setOpenLine(this);
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
    isOpen = true;
    ::rl_callback_handler_install(prompt.constData(), &LineEditor::take);
    std::fflush(stdout);
}

void LineEditor::readKey()
{
    if (isHungUp()) // the library would neither read nor say so
        return take(nullptr);
    ::rl_callback_read_char();
    if (isOpen || !keys.isEnabled())
        return;
    // The library leaves the terminal as it is without an editor behind each line, until a key
    // comes; an end of input that comes first would be lost.
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
    editor->isOpen = false;
    Q_EMIT editor->typed(QByteArray(line));
}

// The library asks for one match after the other, and frees them.
char **LineEditor::complete(const char *word, int start, int)
{
    static QByteArrayList matches;
    matches.clear();
    ::rl_attempted_completion_over = 1; // no file names
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
    if (isOpen)
        std::fputs(toAnEmptyLine, stdout);
    std::fflush(stdout);
}

void LineEditor::show()
{
    if (isOpen)
        ::rl_forced_update_display();
}
