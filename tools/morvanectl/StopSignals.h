#pragma once

// Turns SIGINT and SIGTERM into the end of the event loop with status 0, also where the shell had
// them ignored, as it does for background jobs.
//
// Owner:   a subcommand that runs until it is stopped. It stays in force until the process ends.
// Thread:  main thread, before any other is started.
class QObject;
void endLoopOnStopSignals(QObject *context);
