#include "tests/Storage/Server/Factories/CrashModel.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace loopstore::test {

void CrashModel::Log(const std::string& path, const std::string& line) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::runtime_error("Cannot open model log " + path);
    const std::string text = line + "\n";
    const bool whole = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (!whole)
        throw std::runtime_error("Cannot write model log " + path);
}

void CrashModel::ReadLog(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t end = data.rfind('\n');
    if (end == std::string::npos || end + 1 <= consumed_)
        return;
    std::istringstream lines(data.substr(consumed_, end + 1 - consumed_));
    consumed_ = end + 1;
    std::string line;
    while (std::getline(lines, line))
        Apply(line);
}

void CrashModel::DropExpired(long track) {
    const auto cutoff = expiredBefore_.find(track);
    if (cutoff == expiredBefore_.end())
        return;
    const auto expired = [&](const auto& chunk) { return chunk.first < cutoff->second; };
    if (auto it = saved.find(track); it != saved.end())
        std::erase_if(it->second, expired);
    if (auto it = pending_.find(track); it != pending_.end())
        std::erase_if(it->second, expired);
}

void CrashModel::Apply(const std::string& line) {
    std::istringstream in(line);
    char kind = 0;
    long track = 0;
    in >> kind;
    switch (kind) {
        case 'A': {
            int64_t tp = 0;
            size_t size = 0;
            in >> track >> tp >> size;
            pending_[track][tp] = size;
            break;
        }
        case 'K':
            in >> track;
            saved[track].merge(pending_[track]);
            pending_.erase(track);
            DropExpired(track);
            break;
        case 'X':
            in >> track;
            saved.erase(track);
            pending_.erase(track);
            break;
        case 'E': {
            int64_t cutoff = 0;
            in >> track >> cutoff;
            auto [it, inserted] = expiredBefore_.emplace(track, cutoff);
            if (!inserted)
                it->second = std::max(it->second, cutoff);
            DropExpired(track);
            break;
        }
        case 'T':
            in >> track;
            tracks.insert(track);
            break;
        case 'D':
            in >> track;
            tracks.erase(track);
            std::erase_if(protections, [track](const auto& p) { return p.second.track == track; });
            std::erase_if(properties, [track](const auto& p) { return p.first.first == track; });
            break;
        case 'P': {
            long id = 0;
            Protection p{};
            in >> id >> p.track >> p.from >> p.to;
            protections[id] = p;
            break;
        }
        case 'U': {
            long id = 0;
            in >> id;
            protections.erase(id);
            break;
        }
        case 'Y': {
            std::string key, value;
            in >> track >> key >> value;
            properties[{track, key}] = value;
            break;
        }
        case 'Z': {
            std::string key;
            in >> track >> key;
            properties.erase({track, key});
            break;
        }
        case 'R': {
            int64_t tp = 0;
            in >> track >> tp;
            wrongReads.insert({track, tp});
            break;
        }
        default:
            throw std::runtime_error("Bad model log line: " + line);
    }
}

}  // namespace loopstore::test
