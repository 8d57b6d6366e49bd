#pragma once

#include <QHash>
#include <QString>

#include <functional>

// The log of a process: a text file with one line for each entry, or the journal of the system. The
// plugin base creates one at every load of the settings and stores it in pLog.
//
// A file that cannot be written is named once on standard error, and every later entry tries again,
// so the log recovers by itself. Without a journal, its entries go to standard error.
class TLog
{
public:
    // The numbers of syslog.
    enum class Priority { Error = 3, Warning = 4, Notice = 5, Information = 6 };
    using Fields = QHash<QByteArray, QString>; // of the journal, names in capitals
    using Observer = std::function<void(const QString &text)>;

    // "journal" means the journal. Any other name without "/" means <name>.log in the working
    // directory. A name with "/" is the path of the file; ".log" is added if it has no suffix. The
    // first entry creates the file.
    explicit TLog(QString name);
    ~TLog();
    TLog(const TLog &) = delete;
    TLog &operator=(const TLog &) = delete;

    // Returns the log name for a process whose settings give none.
    [[nodiscard]] static QString getDirPathDefault(const QString &executableBaseName);

    // Entries are written only while enabled. A new log is disabled.
    void Enabled(bool on);

    // Appends one entry: local time with milliseconds and zone, a blank, the text. The entry is in
    // the file when this returns. Drops one line feed at the end of the text and writes every other
    // control character as an escape, so that an entry is always one line.
    void Message(QString text);
    // The same; the journal gets the priority and the fields as well, which a file does not show.
    void Message(QString text, Priority priority, const Fields &fields = {});
    // Writes the entry only if the log is the journal.
    void JournalOnly(const QString &text, Priority priority);

    // Closes the file. The next entry opens the file that has the name then.
    void Reopen();

    [[nodiscard]] QString filePath() const { return path; }
    [[nodiscard]] bool isJournal() const;

    // Sets fields for every later entry of this process.
    static void SetCommonFields(const Fields &fields);
    // Sets a function that is called with every error and warning, even while the log is disabled.
    static void SetObserver(Observer observer);

    int level = 0; // [Base]/Log as it was read; 0 means off

private:
    void write(const QString &text);
    void writeToJournal(const QString &text, Priority priority, const Fields &fields) const;
    [[nodiscard]] bool openFile();
    [[nodiscard]] bool isStillInPlace() const;
    void closeFile();
    void warnOnce(const char *action);

    QString path;
    int descriptor = -1;
    bool enabled = false;
    bool hasWarned = false;
};

// The log of this process, never null: a disabled one until the first load of the settings.
extern TLog *pLog;
