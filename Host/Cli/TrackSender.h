#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "Host/Cli/Backoff.h"
#include "Host/Cli/ChunkBuffer.h"
#include "Host/Cli/ServerUnavailable.h"
#include "Host/Cli/StorageClient.h"
#include "Host/Cli/TrackWriteStream.h"

namespace loopstore::cli {

// Sends a ChunkBuffer's chunks to a track on its own thread, and outlives the
// server: when the server goes away the stream is dropped, the buffer keeps
// filling (dropping its oldest chunks when full), and the sender reconnects
// with capped exponential backoff. On a new stream it asks where the track
// ends and sends again what the server did not store. A refusal (unknown
// track, a chunk the server will not take) ends the sending for good.
//
// Refers to the client, the buffer and `notes` (where reconnections are
// reported), which must outlive it. Start() once, then Join().
class TrackSender {
  public:
    TrackSender(StorageClient& client, int64_t trackId, ChunkBuffer& buffer, std::ostream& notes);
    ~TrackSender();

    void Start();
    // Waits for the thread, which ends when the buffer is drained (or its
    // drain time is over) or at a refusal.
    void Join();

    // The refusal that stopped the sending, if any.
    const std::optional<std::string>& Error() const { return error_; }
    uint64_t Reconnects() const { return reconnects_; }
    // False when the last stream could not be closed cleanly (server away).
    bool Finished() const { return finished_; }

  private:
    void Run();
    void SendAll();
    // Opens a stream and forgets what the track already stores. False (after
    // waiting the backoff delay) when the server is away.
    bool Connect();
    void Send(const std::vector<ChunkBuffer::ChunkPtr>& batch);
    // Asks now and then how far the track is stored, so that the buffer
    // holds only what may have to be sent again.
    void ConfirmNowAndThen();
    void Disconnected(const ServerUnavailable& why);
    void CloseStream();

    StorageClient& client_;
    const int64_t trackId_;
    ChunkBuffer& buffer_;
    std::ostream& notes_;
    Backoff backoff_;
    std::unique_ptr<TrackWriteStream> stream_;
    bool everConnected_ = false;
    bool away_ = false;  // the server went away and is not back yet
    std::chrono::steady_clock::time_point lostAt_;
    std::chrono::steady_clock::time_point lastConfirm_;
    std::optional<std::string> error_;
    uint64_t reconnects_ = 0;
    bool finished_ = false;
    std::thread thread_;
};

}  // namespace loopstore::cli
