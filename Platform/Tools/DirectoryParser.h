#pragma once

#include <dirent.h>

#include <memory>
#include <string>

namespace Moreld::Tools {

// Lists the entries of one directory, one at a time, without recursing.
// Each entry is given as the directory's path joined with the entry's name,
// ready for a status query. "." and ".." are never given. The order is the
// file system's. Owns an open directory handle until destroyed. Not
// thread-safe: one parser per thread.
class DirectoryParser {
  public:
    // Opens `directory`; throws std::runtime_error naming the path and the
    // system's reason when it cannot be opened.
    explicit DirectoryParser(const std::string& directory);

    DirectoryParser(const DirectoryParser&) = delete;
    DirectoryParser& operator=(const DirectoryParser&) = delete;

    // Sets `entry` to the next entry's path and returns true, or returns
    // false (leaving `entry` unchanged) once every entry has been given.
    // Throws std::runtime_error when the directory cannot be read.
    bool Next(std::string& entry);

  private:
    struct CloseDir {
        void operator()(DIR* dir) const { closedir(dir); }
    };

    std::string directory_;
    // Joined in front of each name: the directory with one trailing '/'.
    std::string prefix_;
    std::unique_ptr<DIR, CloseDir> dir_;
};

}  // namespace Moreld::Tools
