#pragma once

#include <QString>

// The log of a process: one text file, one line for every entry.
//
// Owner:   the plugin base creates one at every load of the settings and stores it in pLog.
// Thread:  main thread only.
// Errors:  never throws. A file that cannot be written is named once on standard error, and every
//          later entry tries again, so the log comes back by itself.
class TLog
{
public:
    // A name without "/" gives <name>.log in the working directory. A name with "/" is the path
    // of the file; ".log" is added when it has no suffix. The file is made by the first entry.
    explicit TLog(QString name);
    ~TLog();
    TLog(const TLog &) = delete;
    TLog &operator=(const TLog &) = delete;

    // The log name of a process whose settings give none.
    [[nodiscard]] static QString getDirPathDefault(const QString &executableBaseName);

    // Entries are written only while enabled. A new log is disabled.
    void Enabled(bool on);

    // Appends one entry: local time with milliseconds and zone, a blank, the text. It is in the
    // file when this returns. One line feed at the end of the text is the line's own; any other
    // control character is shown as an escape, so that an entry never spreads over lines.
    void Message(QString text);

    // Lets go of the file; the next entry opens the one that bears the name then.
    void Reopen();

    [[nodiscard]] QString filePath() const { return path; }

    int level = 0; // [Base]/Log as it was read; 0 means off

private:
    [[nodiscard]] bool openFile();
    [[nodiscard]] bool isStillInPlace() const;
    void closeFile();
    void complainOnce(const char *action);

    QString path;
    int descriptor = -1;
    bool enabled = false;
    bool complained = false;
};

// The log of this process; null until the first load of the settings.
extern TLog *pLog;
