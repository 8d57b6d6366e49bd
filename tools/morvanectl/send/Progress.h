#pragma once

#include <QElapsedTimer>
#include <QString>

// A bar on the last line of a terminal, for work that takes longer than a second. Nowhere else.
//
// Owner:   a subcommand, which says its own lines through it.
class Progress
{
public:
    // The whole work in bytes; switched off it shows nothing.
    Progress(qint64 total, bool on);
    ~Progress() { clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(qint64 done, const QString &remark);
    // A line of its own, above the bar.
    void sayAbove(const QString &line);
    void clear();
    [[nodiscard]] bool isDrawn() const { return drawn; }

private:
    const qint64 total;
    const bool isOn;
    QElapsedTimer running;
    qint64 nextDrawing; // milliseconds
    bool drawn = false;
};
