#include "Host/Cli/TrackSender.h"

#include <sstream>

#include "Host/Cli/Output.h"
#include "Host/Cli/ServerUnavailable.h"

namespace loopstore::cli {

namespace {

constexpr auto kFirstDelay = std::chrono::milliseconds(100);
constexpr auto kLongestDelay = std::chrono::seconds(5);
constexpr auto kConfirmEvery = std::chrono::seconds(2);
// A backlog (after a reconnection, or a fast source) goes in messages of a
// few chunks: fewer wake-ups on both sides for the same bytes.
constexpr uint64_t kBatchBytes = 256 << 10;

double SecondsSince(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

TrackSender::TrackSender(StorageClient& client, int64_t trackId, ChunkBuffer& buffer,
                         std::ostream& notes)
    : client_(client),
      trackId_(trackId),
      buffer_(buffer),
      notes_(notes),
      backoff_(kFirstDelay, kLongestDelay) {}

TrackSender::~TrackSender() {
    if (thread_.joinable())
        thread_.join();
}

void TrackSender::Start() {
    thread_ = std::thread([this] { Run(); });
}

void TrackSender::Join() {
    if (thread_.joinable())
        thread_.join();
}

void TrackSender::Run() {
    try {
        SendAll();
        CloseStream();
    } catch (const CliError& refusal) {
        error_ = refusal.what();
        buffer_.Fail();
        stream_.reset();
    }
}

void TrackSender::SendAll() {
    for (;;) {
        const std::vector<ChunkBuffer::ChunkPtr> batch = buffer_.NextBatchToSend(kBatchBytes);
        if (batch.empty())
            return;
        // A new stream starts again at what the server lacks, which may lie
        // before `batch`: ask the buffer again.
        if (!stream_)
            Connect();
        else
            Send(batch);
    }
}

void TrackSender::Send(const std::vector<ChunkBuffer::ChunkPtr>& batch) {
    try {
        stream_->Write(batch);
        for (const ChunkBuffer::ChunkPtr& chunk : batch)
            buffer_.MarkSent(chunk);
        ConfirmNowAndThen();
    } catch (const ServerUnavailable& why) {
        Disconnected(why);
    }
}

bool TrackSender::Connect() {
    try {
        stream_ = client_.OpenWriter(trackId_);
        // The server may have lost what it had not written out: the track's
        // end tells what to send again.
        buffer_.Confirm(client_.GetEndOfTrack(trackId_), true);
        lastConfirm_ = std::chrono::steady_clock::now();
    } catch (const ServerUnavailable& why) {
        stream_.reset();
        if (!away_)
            Disconnected(why);
        buffer_.Wait(backoff_.Next());
        return false;
    }
    backoff_.Reset();
    if (everConnected_) {
        ++reconnects_;
        const ChunkBuffer::Dropped dropped = buffer_.TakeDropped();
        std::ostringstream note;
        note << "record: track " << trackId_ << ": the server at " << client_.Address()
             << " is back after " << SecondsSince(lostAt_) << " s";
        if (dropped.chunks > 0)
            note << "; the buffer was full: dropped " << dropped.chunks << " chunks ("
                 << Output::Bytes(dropped.bytes) << ") from " << dropped.from << " to "
                 << dropped.to;
        notes_ << note.str() + "\n" << std::flush;
    }
    everConnected_ = true;
    away_ = false;
    return true;
}

void TrackSender::ConfirmNowAndThen() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastConfirm_ < kConfirmEvery)
        return;
    lastConfirm_ = now;
    buffer_.Confirm(client_.GetEndOfTrack(trackId_), false);
}

void TrackSender::Disconnected(const ServerUnavailable& why) {
    if (stream_) {
        // Closing a broken stream reports the same loss again.
        try {
            stream_->Finish();
        } catch (const CliError&) {
        }
        stream_.reset();
    }
    if (away_)
        return;
    away_ = true;
    lostAt_ = std::chrono::steady_clock::now();
    notes_ << "record: track " + std::to_string(trackId_) + ": lost the server (" + why.what() +
                  "); buffering and reconnecting\n"
           << std::flush;
}

void TrackSender::CloseStream() {
    if (!stream_)
        return;
    try {
        stream_->Finish();
        buffer_.ConfirmAllSent();
        finished_ = true;
    } catch (const ServerUnavailable& why) {
        Disconnected(why);
    }
    stream_.reset();
}

}  // namespace loopstore::cli
