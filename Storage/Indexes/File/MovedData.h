#pragma once

#include <string>
#include <vector>

#include "Storage/Indexes/File/ChunkFile.h"

// One request to the MovingThread: rename `files` from one directory into
// another. Files are found by name directly in the directories given (their
// directory numbers are not used to build paths).
//
// The origin mode lets a batch of files be scattered and gathered back: a
// move with kWrite stamps each file with the directory it leaves, in the
// extended attribute "user.originDirectory"; a later move with kReadBack
// sends each file to the directory its stamp names, whatever
// `destinationDirectory` says.
//
// A plain value; the queue owns it while it waits, the thread while it runs.
struct MovedData {
    enum class Origin {
        kIgnore,    // move to destinationDirectory, attributes untouched
        kWrite,     // record sourceDirectory in each file before moving it
        kReadBack,  // move each file to the directory recorded in it
    };

    std::vector<ChunkFile> files;
    std::string sourceDirectory;
    // Unused with Origin::kReadBack.
    std::string destinationDirectory;
    Origin origin = Origin::kIgnore;
    // Stamp each file that arrived with "user.__emptyFile" = "1": it reaches
    // its destination without chunk data.
    bool markEmptyFile = false;
};
