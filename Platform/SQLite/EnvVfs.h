#pragma once

namespace Moreld::SQLite {

// The name of the SQLite VFS every Database opens its file with: SQLite's
// own unix VFS, with each write, truncation, sync, creation and removal of a
// database file (main file, write-ahead log, journal) reported to, and
// failable by, the installed Moreld::File::Env. A test Env thereby sees the
// databases' bytes as it sees the chunk files', and a simulated power cut
// covers both. A file SQLite creates has its directory synced at its first
// sync, so that the new entry is as durable as its content.
//
// Registers the VFS the first time it is called; thread-safe.
const char* EnvVfsName();

}  // namespace Moreld::SQLite
