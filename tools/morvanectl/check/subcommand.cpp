#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "SettingsCheck.h"

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr int cleanStatus = 0;
constexpr int warningStatus = 1;
constexpr int errorStatus = 2;

constexpr char description[] =
    R"(Reads settings files as the module does and prints one line for each thing that will not
work: FILE:LINE: error|warning: text. If a key is missing, the line is that of its group,
or the first one. For several files it also prints what the modules cannot share.

Run it as the module's user, in its environment (TMPDIR) and for its working directory:
they decide what can be written and where the bus sockets are.

Exit status: 0 nothing found, 1 warnings only, 2 errors or wrong usage. With --errors-only
warnings do not count, so that a service manager starts the module in spite of them.)";

// Prints the findings. Returns the status for the worst finding, if that is worse than `worst`.
int report(const QString &file, const QList<SettingsCheck::Finding> &findings, int worst)
{
    for (const SettingsCheck::Finding &finding : findings) {
        const bool isError = finding.severity == SettingsCheck::Severity::Error;
        const QString place = file + u':' + QString::number(finding.line) + u": "_s;
        const QString line = place + (isError ? u"error: "_s : u"warning: "_s) + finding.text;
        say(printable(line.toUtf8()).replace(u'\n', u"\\n"_s));
        worst = std::max(worst, isError ? errorStatus : warningStatus);
    }
    return worst;
}

} // namespace

int runCheck(const QStringList &arguments)
{
    CommandLine line(u"check"_s, u"SETTINGS..."_s, QString::fromLatin1(description));
    addDirectoryOption(line);
    line.addFlag(u"errors-only"_s, u"Exit with status 0 unless there are errors."_s);
    if (!line.parse(arguments, 1))
        return line.exitStatus();

    int worst = cleanStatus;
    std::vector<std::unique_ptr<SettingsCheck>> checks;
    const QStringList files = line.positionals();
    for (const QString &file : files) {
        auto check = std::make_unique<SettingsCheck>(file, line.value(u"directory"_s));
        QList<SettingsCheck::Finding> findings = check->run();
        for (const auto &other : checks)
            findings += check->clashesWith(*other);
        worst = report(file, findings, worst);
        checks.push_back(std::move(check));
    }
    return line.isSet(u"errors-only"_s) && worst == warningStatus ? cleanStatus : worst;
}
