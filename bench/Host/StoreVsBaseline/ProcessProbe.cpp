#include "bench/Host/StoreVsBaseline/ProcessProbe.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>

namespace loopstore::bench {

namespace {

constexpr uint64_t kSectorBytes = 512;

double Seconds(const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// The value of `key` (e.g. "VmHWM:") in a "key value" file, scaled by
// `unit`; 0 when absent.
uint64_t FieldOf(const char* path, const std::string& key, uint64_t unit) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size(), key) == 0)
            return std::stoull(line.substr(key.size())) * unit;
    }
    return 0;
}

// The /proc/diskstats name of the device with these numbers.
std::string DeviceNamed(unsigned major, unsigned minor) {
    std::ifstream in("/proc/diskstats");
    unsigned ma = 0;
    unsigned mi = 0;
    std::string name;
    std::string rest;
    while (in >> ma >> mi >> name) {
        std::getline(in, rest);
        if (ma == major && mi == minor)
            return name;
    }
    return "";
}

}  // namespace

ProcessProbe::ProcessProbe(const std::string& directory) {
    struct stat info {};
    if (::stat(directory.c_str(), &info) == 0)
        device_ = DeviceNamed(major(info.st_dev), minor(info.st_dev));
}

ProcessProbe::Reading ProcessProbe::Read() const {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    Reading reading;
    reading.cpuSeconds = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    const uint64_t written = FieldOf("/proc/self/io", "write_bytes:", 1);
    const uint64_t cancelled = FieldOf("/proc/self/io", "cancelled_write_bytes:", 1);
    reading.writtenBytes = written > cancelled ? written - cancelled : 0;
    reading.deviceBytes = DeviceBytesWritten();
    return reading;
}

uint64_t ProcessProbe::DeviceBytesWritten() const {
    if (device_.empty())
        return 0;
    std::ifstream in("/proc/diskstats");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        unsigned ma = 0;
        unsigned mi = 0;
        std::string name;
        uint64_t value[7] = {};
        fields >> ma >> mi >> name;
        if (name != device_)
            continue;
        // reads, merged, sectors read, ms reading, writes, merged, sectors written
        for (uint64_t& v : value)
            fields >> v;
        return value[6] * kSectorBytes;
    }
    return 0;
}

bool ProcessProbe::ResetPeakRss() {
    ::malloc_trim(0);
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

uint64_t ProcessProbe::PeakRssBytes() {
    return FieldOf("/proc/self/status", "VmHWM:", 1024);
}

uint64_t ProcessProbe::RssBytes() {
    return FieldOf("/proc/self/status", "VmRSS:", 1024);
}

}  // namespace loopstore::bench
