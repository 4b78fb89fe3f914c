#pragma once

// Every commit of the store's databases records something a later step
// relies on: a file lent before it is renamed, a chunk listed as saved, a
// protection or property acknowledged to a client. Each is therefore made
// durable before the call returns (one sync of the write-ahead log; commits
// are per file or per administrative call, never per chunk). Applied after a
// database's usual connection settings, which it overrides.
inline constexpr char kDurableCommits[] = "PRAGMA SYNCHRONOUS=FULL;";
