#pragma once

#include <cstdint>
#include <string>

namespace loopstore::bench {

// What the kernel counts for this process and for the device under the
// benchmark's directory, read at the start and end of a phase. Reading is
// cheap and thread-safe; ResetPeakRss affects the whole process.
class ProcessProbe {
  public:
    struct Reading {
        double cpuSeconds = 0;      // user + system, every thread
        uint64_t writtenBytes = 0;  // /proc/self/io: caused to be written
        uint64_t deviceBytes = 0;   // /proc/diskstats: written by the device
    };

    // `directory` picks the device whose writes are counted.
    explicit ProcessProbe(const std::string& directory);

    Reading Read() const;
    bool HasDevice() const { return !device_.empty(); }
    const std::string& Device() const { return device_; }

    // Sets the peak resident size back to the current one (clear_refs 5),
    // first giving freed heap back to the system so that a phase does not
    // inherit the previous one's leftovers. False when the kernel refuses.
    static bool ResetPeakRss();
    // VmHWM: the peak resident size since the last reset.
    static uint64_t PeakRssBytes();
    static uint64_t RssBytes();

  private:
    uint64_t DeviceBytesWritten() const;

    std::string device_;  // name in /proc/diskstats, empty when not found
};

}  // namespace loopstore::bench
