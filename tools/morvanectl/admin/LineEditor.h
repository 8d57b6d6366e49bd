#pragma once

#include "Output.h"

#include <QObject>
#include <QSocketNotifier>
#include <QStringList>

#include <functional>

// Reads lines from the terminal, with editing and a history. Other output appears above the line
// being edited, which may be longer than the window is wide. The destructor restores the terminal.
//
// Only one object can exist, because libedit keeps global state.
class LineEditor : public QObject, private OpenLine
{
    Q_OBJECT
public:
    explicit LineEditor(const QByteArray &prompt);
    ~LineEditor() override;

    // Returns the words that the Tab key offers after the text `before` the cursor's word.
    std::function<QStringList(const QString &before)> candidates;

    // Returns whether standard input and output are a terminal that can move its cursor.
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
    bool isLineOpen = false;
};
