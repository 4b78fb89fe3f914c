#pragma once

#include <string>

#include "Platform/Logging/Logger.h"
#include "Platform/SQLite/Database.h"

// Opens one of the service-wide databases ("protections.db",
// "properties.db") in `directory`: creates `table` from `createSql` when it
// is missing (logged at 20), runs `extraSql` (may be empty) and the shared
// pragma line. Throws std::runtime_error "Could not open database file
// <path>" (logged at 50) when the file cannot be opened.
void OpenServiceDatabase(Moreld::SQLite::Database& db, const std::string& directory,
                         const std::string& fileName, const std::string& table,
                         const std::string& createSql, const std::string& extraSql,
                         const tav::mr::logging::Logger& logger);
