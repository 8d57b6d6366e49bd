#include "StopSignals.h"

#include "MainThread.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

int endingSignal = 0;

} // namespace

void onSignals(
    std::initializer_list<int> signals, QObject *context, std::function<void(int signal)> handler)
{
    Q_ASSERT(isMainThread());
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    const int descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0)
        return qErrnoWarning("Signals end this program at once");
    // Blocked signals wait in the descriptor, so only the event loop gets them.
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, context);
    QObject::connect(
        notifier, &QSocketNotifier::activated, context, [descriptor, handle = std::move(handler)] {
            signalfd_siginfo info;
            while (::read(descriptor, &info, sizeof(info)) == ssize_t(sizeof(info)))
                handle(int(info.ssi_signo));
        });
}

void endLoopOnStopSignals(QObject *context)
{
    onSignals({SIGINT, SIGTERM}, context, [](int signal) {
        endingSignal = signal;
        QCoreApplication::exit(0);
    });
}

int stopSignal()
{
    if (endingSignal != 0)
        return endingSignal;
    // One may have come since the event loop looked last.
    sigset_t waiting;
    sigemptyset(&waiting);
    ::sigpending(&waiting);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (sigismember(&waiting, signal) == 1)
            return signal;
    }
    return 0;
}
