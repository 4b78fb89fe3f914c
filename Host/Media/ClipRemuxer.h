#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "Host/Media/ContinuousTimestamps.h"
#include "Host/Media/Packet.h"

namespace loopstore::media {

class Demuxer;
class Muxer;

// Cuts a clip out of a demuxed stream and remuxes it: it begins at the key
// frame of the reference stream (Demuxer::ReferenceStream) shown at or
// before `from`, and holds the packets decoded before `to`, both in the time
// the caller's PacketTime gives a packet's timestamps. Across a discontinuity (a hole in the
// bytes, a jump of the media clock) the packets that may be cut are
// dropped, the video starts again at its next key frame, and the
// timestamps are closed up (ContinuousTimestamps).
//
// Refers to the demuxer and the muxer, which must outlive it. Writes
// nothing to the muxer before it knows where the clip starts. One thread at
// a time.
class ClipRemuxer {
  public:
    // The time (ns) of the timestamp `ts` (kClock units) of a packet whose
    // first byte lies at offset `pos` of the input.
    using PacketTime = std::function<int64_t(int64_t pos, int64_t ts)>;
    // True when the input's bytes are not contiguous somewhere in
    // (after, upTo]: a hole in the recording lies there.
    using Splice = std::function<bool(int64_t after, int64_t upTo)>;
    // Told the time of every packet read, for progress.
    using Progress = std::function<void(int64_t time)>;

    enum class Outcome {
        kWritten,      // the clip is complete (Muxer::Finish is the caller's)
        kNeedEarlier,  // the input begins after a key frame it should hold
        kEmpty,        // no packet of the range could be kept
    };
    // A jump of the media clock where the bytes were contiguous.
    struct Jump {
        int64_t at = 0;      // time of the first packet after it
        int64_t stepNs = 0;  // how far the clock moved (negative: back)
    };
    struct Summary {
        int64_t start = 0;        // time of the key frame the clip starts at
        int64_t end = 0;          // end of the last packet shown
        bool startsLate = false;  // no key frame at or before `from`
        int64_t packets = 0;
        int64_t durationNs = 0;  // of the clip's timeline
        std::vector<Jump> jumps;
    };

    ClipRemuxer(Demuxer& input, Muxer& output, PacketTime time, Splice splice);

    // Remuxes [from, to). With `laterStartAllowed` false, returns
    // kNeedEarlier, having written nothing, when packets before `from` were
    // read but no key frame at or before it. Throws MediaError when the
    // output cannot be written.
    Outcome Run(int64_t from, int64_t to, bool laterStartAllowed, const Progress& progress);
    const Summary& summary() const { return summary_; }

  private:
    // When a packet is decoded and shown.
    struct Times {
        int64_t decode;
        int64_t display;
    };

    // Steps of Run.
    // Fills a missing dts or pts from the other; false when both miss.
    static bool FillTimestamps(Packet& packet);
    Times TimesOf(const Packet& packet);
    void AddStreams();
    // Keeps `packet` while the start is being looked for; true once the
    // clip has started.
    bool Seek(Packet& packet, const Times& times, int64_t from, bool& needEarlier,
              bool laterStartAllowed);
    // Writes the header and takes the packets kept since the start.
    void Begin();
    // Takes one packet of the clip: discontinuities, resync, timestamps.
    void Take(Packet packet, const Times& times);
    // Notes a hole before `packet` or a jump of its clock.
    void CheckContinuity(const Packet& packet, int64_t dts, int64_t time);
    int64_t ToClock(const Packet& packet, int64_t ts) const;
    // Holds the packet until the next one of its stream shows whether a
    // hole cut it.
    void Hold(Packet packet);
    void Emit(Packet& packet);
    void Flush();

    Demuxer& input_;
    Muxer& output_;
    const PacketTime time_;
    const Splice splice_;
    const int reference_;
    std::map<int, int> outputIndex_;  // input stream -> output stream
    struct Timed {
        Packet packet;
        Times times;
    };
    std::vector<Timed> pending_;  // from the start candidate on
    std::map<int, Packet> held_;
    ContinuousTimestamps timestamps_;
    int64_t lastPos_ = -1;
    int64_t lastReadPos_ = 0;  // of the last packet read that had one
    bool sawBeforeFrom_ = false;
    bool seekSpliced_ = false;  // a hole lay before the start
    int64_t startDts_ = 0;      // clock; earlier packets of the first run are dropped
    bool firstRun_ = true;
    bool resync_ = false;
    bool rejoin_ = false;
    Summary summary_;
};

}  // namespace loopstore::media
