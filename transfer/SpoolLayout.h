#pragma once

// The names in a spool directory. A visible file is a record that waits. Everything else that this
// program puts there has one of these names:
//
//   .lock                  exists while a writer is at work, see SpoolLock
//   .incoming-PID-NUMBER   a file that is being written, see WholeFile
//   .incoming-gone-PID     a file that is being removed, see SpoolDirectory::remove()
//   .sent-XXXXXX/          the folder of a running process, see SentFolder: files that were sent,
//     .journal             records that were sent and have no file, see Journal
//     .record              a record of which a file is being made, see GiveBack
//   refused/               files that can never be sent
//
// WholeFile gives its hidden names in other folders too.
namespace SpoolLayout {

inline constexpr char lockFile[] = ".lock";
inline constexpr char incomingPrefix[] = ".incoming-";
inline constexpr char gonePrefix[] = ".incoming-gone-"; // tidied up like an unfinished file
inline constexpr char sentPrefix[] = ".sent-";
inline constexpr char journalFile[] = ".journal";
inline constexpr char halfwayFile[] = ".record";
inline constexpr char refusedFolder[] = "refused";

} // namespace SpoolLayout
