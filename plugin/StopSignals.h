#pragma once

// Turns SIGINT and SIGTERM into the end of the event loop with status 0, also where the shell had
// them ignored, as it does for background jobs.
//
// Nothing is torn down: what must be kept is on the disk already. A signal that comes while the
// main thread waits (for the spool's lock or a connection of the bus, up to 30 seconds each) takes
// effect after that wait.
//
// Owner:   a program that runs until it is stopped. It stays in force until the process ends.
// Thread:  main thread, before any other is started.
class QObject;
void endLoopOnStopSignals(QObject *context);
