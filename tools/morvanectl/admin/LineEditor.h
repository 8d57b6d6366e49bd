#pragma once

#include "Output.h"

#include <QObject>
#include <QSocketNotifier>
#include <QStringList>

#include <functional>

// Lines that a person types on the terminal, with editing and a history. What is said meanwhile
// stands above the line, which may be longer than the window is wide.
//
// Owner:   whoever wants the lines. There can be one at a time, for the library has one state.
// Thread:  main thread.
// Errors:  never throws. The destructor leaves the terminal as it was.
class LineEditor : public QObject, private OpenLine
{
    Q_OBJECT
public:
    explicit LineEditor(const QByteArray &prompt);
    ~LineEditor() override;

    // What the Tab key completes: the words that can stand behind the text before the cursor.
    std::function<QStringList(const QString &before)> candidates;

    // Whether a person sits at both ends.
    [[nodiscard]] static bool isPossible();

Q_SIGNALS:
    void typed(const QByteArray &line);
    void ended();

private:
    void open();
    void readKey();
    static void take(char *line);
    static char **complete(const char *word, int start, int end);
    void hide() override;
    void show() override;
    void hideBelow(int row);
    [[nodiscard]] int rowOfCursor(int columns) const;
    void fitWindow();
    void suspend();
    void resume();

    const QByteArray prompt;
    QSocketNotifier keys;
    bool isOpen = false; // the line; not while a finished one is handled
};
