#pragma once

#include <QElapsedTimer>
#include <QString>

// Draws a bar on the last line of a terminal for work that takes longer than a second. Draws
// nothing if standard output is not a terminal. While a bar may be there, print other lines with
// sayAbove().
class Progress
{
public:
    enum class Bar { Hidden, Shown };

    // `total` is the whole work in bytes.
    Progress(qint64 total, Bar bar);
    ~Progress() { clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(qint64 done, const QString &remark);
    // Prints a line above the bar.
    void sayAbove(const QString &line);
    void clear();
    [[nodiscard]] bool isDrawn() const { return isBarOnScreen; }

private:
    const qint64 total;
    const bool isShown;
    QElapsedTimer running;
    qint64 nextDrawing; // milliseconds
    bool isBarOnScreen = false;
};
