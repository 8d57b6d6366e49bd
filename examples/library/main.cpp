// How another module of the family begins: its settings file, its log, its service manager.
//
// Build it with CMake, see CMakeLists.txt, or with pkg-config:
//
//     g++ -std=c++20 -fPIC main.cpp $(pkg-config --cflags --libs harnix-nogui) -o sample
#include <ServiceManager.h>
#include <Settings.h>
#include <TLog.h>
#include <Version.h>

#include <QCoreApplication>
#include <QTextStream>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    pLog = new TLog(TLog::getDirPathDefault(u"sample"_s));
    pLog->Enabled(true);
    pLog->Message(u"Started with the support library "_s + getHarnixVersion());
    ServiceManager::sayReady();
    QTextStream(stdout) << "Settings: " << getIniNameDefault(false) << "\nLog: " << pLog->filePath()
                        << "\n";
    delete pLog;
}
