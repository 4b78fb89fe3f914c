#pragma once

// Guarantees that at most one writer exists per track in the process: a
// TrackLock holds its track for its lifetime, and a second one on the same
// track cannot be made meanwhile. Every writer owns one.
//
// Thread safety: instances may be created and destroyed from any thread; the
// process-wide set of held tracks is guarded by a mutex of its own, taken
// for a set lookup only.
class TrackLock {
  public:
    // Holds `trackId`. Throws std::runtime_error "Track <id> is already being
    // written to" when another TrackLock holds it; nothing is held then.
    explicit TrackLock(long trackId);
    // Releases the track.
    ~TrackLock();

    TrackLock(const TrackLock&) = delete;
    TrackLock& operator=(const TrackLock&) = delete;

    long GetTrackId() const { return trackId_; }

  private:
    const long trackId_;
};
