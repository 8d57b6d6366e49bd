#pragma once

#include <QHash>
#include <QString>

#include <functional>

// The log of a process: one text file, one line for every entry, or the journal of the system.
//
// Owner:   the plugin base creates one at every load of the settings and stores it in pLog.
// Thread:  main thread only.
// Errors:  never throws. A file that cannot be written is named once on standard error, and every
//          later entry tries again, so the log comes back by itself. Entries for a journal that is
//          not there go to standard error.
class TLog
{
public:
    enum class Priority {
        Error = 3,
        Warning = 4,
        Notice = 5,
        Information = 6
    }; // as syslog has them
    using Fields = QHash<QByteArray, QString>; // of the journal, names in capitals
    using Observer = std::function<void(const QString &text)>;

    // "journal" means the journal. A name without "/" gives <name>.log in the working directory. A
    // name with "/" is the path of the file; ".log" is added when it has no suffix. The file is
    // made by the first entry.
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
    // The same, with what a file has no place for: the journal gets priority and fields.
    void Message(QString text, Priority priority, const Fields &fields = {});
    // Writes the entry if the log is the journal.
    void JournalOnly(const QString &text, Priority priority);

    // Lets go of the file; the next entry opens the one that bears the name then.
    void Reopen();

    [[nodiscard]] QString filePath() const { return path; }
    [[nodiscard]] bool isJournal() const;

    // Of every entry of this process from now on.
    static void SetCommonFields(const Fields &fields);
    // Hears of errors and warnings, whether they are written or not.
    static void SetObserver(Observer observer);

    int level = 0; // [Base]/Log as it was read; 0 means off

private:
    void write(const QString &text);
    void writeToJournal(const QString &text, Priority priority, const Fields &fields) const;
    [[nodiscard]] bool openFile();
    [[nodiscard]] bool isStillInPlace() const;
    void closeFile();
    void complainOnce(const char *action);

    QString path;
    int descriptor = -1;
    bool enabled = false;
    bool complained = false;
};

// The log of this process, never null: a disabled one until the first load of the settings.
extern TLog *pLog;
