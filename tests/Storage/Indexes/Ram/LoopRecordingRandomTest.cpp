// Randomised runs of the track index against a model of the loop-recording
// rules: chunks of random sizes and durations (with gaps) loop through a few
// files while protections come and go, files are added, given back or forced
// out, and the track is cleared. The model is built from the rules alone and
// the manager must agree with it after every step.
//
// Each run prints its seed; LOOPSTORE_SEED=<seed> replays it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"
#include "tests/Support/TestTime.h"

using loopstore::test::ChunkWriter;
using loopstore::test::Ns;
using loopstore::test::TrackFixture;
using Moreld::Time::TimePoint;

namespace {

constexpr unsigned long kHeader = Moreld::File::ChunkFileHeader::kSize;
// Bounds on the track's file count, so that the loop keeps recycling.
constexpr size_t kMinFiles = 3;
constexpr size_t kMaxFiles = 10;
// Above this many live protections the run unprotects rather than protects.
constexpr size_t kMaxProtections = 4;

uint64_t RunSeed() {
    if (const char* text = std::getenv("LOOPSTORE_SEED"))
        return std::strtoull(text, nullptr, 10);
    std::random_device device;
    return (static_cast<uint64_t>(device()) << 32) | device();
}

struct ModelChunk {
    TimePoint tp;
    TimePoint duration;
    unsigned long size = 0;
    unsigned long offset = 0;

    TimePoint End() const { return tp + duration; }
    bool operator==(const ModelChunk&) const = default;
};

std::ostream& operator<<(std::ostream& os, const ModelChunk& c) {
    return os << "{" << c.tp.ToNanoseconds() << "+" << c.duration.ToNanoseconds() << " @"
              << c.offset << " " << c.size << "B}";
}

struct ModelBlock {
    long file = 0;
    unsigned long used = kHeader;
    std::vector<ModelChunk> chunks;
    std::set<unsigned long> protections;

    TimePoint In() const { return chunks.front().tp; }
    TimePoint Out() const { return chunks.back().End(); }
    // Whether a protection from `a` to `b` covers the block.
    bool IsBetween(TimePoint a, TimePoint b) const {
        if (a == In())
            return true;
        return a < In() ? b > In() : a < Out();
    }
    bool operator==(const ModelBlock&) const = default;
};

std::ostream& operator<<(std::ostream& os, const ModelBlock& b) {
    os << "file " << b.file << ", " << b.used << "B, " << b.protections.size()
       << " protections, chunks";
    for (const ModelChunk& c : b.chunks)
        os << " " << c;
    return os;
}

using ModelBlocks = std::map<TimePoint, ModelBlock>;

// The same view of the manager's blocks.
ModelBlocks ViewOf(const std::map<TimePoint, FileSystem::Block>& blocks) {
    ModelBlocks view;
    for (const auto& [key, block] : blocks) {
        ModelBlock& b = view[key];
        b.file = block.GetChunkFile().GetFileNumber();
        b.used = block.GetCurrentSize();
        b.protections = block.GetProtections();
        for (const auto& [tp, chunk] : block.GetChunks()) {
            b.chunks.push_back({tp, chunk.duration, chunk.location.size, chunk.location.offset});
            EXPECT_EQ(chunk.location.file.GetFileNumber(), b.file) << chunk;
            EXPECT_EQ(chunk.location.chunkIndex, b.chunks.size() - 1) << chunk;
        }
    }
    return view;
}

// Where the model expects a chunk to go.
struct Placement {
    long file = 0;
    unsigned long offset = 0;
    unsigned long index = 0;
    unsigned long sequence = 0;
    TimePoint accumulated;
};

// Why the model expects Append to refuse a chunk: the start of the expected
// error text, or empty when the chunk must be accepted.
using Refusal = std::string;

// The track as the loop-recording rules say it must be. Files are named by
// number and all have one size.
class TrackModel {
  public:
    explicit TrackModel(unsigned long fileSize) : fileSize_(fileSize) {}

    Refusal Append(TimePoint tp, TimePoint duration, unsigned long size, Placement& placed);
    // False, with nothing changed, when Protect must throw.
    bool Protect(unsigned long id, TimePoint in, TimePoint out);
    // The number of blocks freed; nothing when the id is unknown.
    std::optional<unsigned long> Unprotect(unsigned long id);
    void InsertFiles(const std::vector<long>& files);
    // The files given back with their fromEmptyFile flag.
    std::vector<std::pair<long, bool>> RemoveFiles(unsigned long size);
    bool ForceRemoveFiles(const std::vector<long>& files);
    void Clear();

    const ModelBlocks& Blocks() const { return blocks_; }
    const std::deque<long>& EmptyFiles() const { return empty_; }
    const std::map<unsigned long, std::set<TimePoint>>& Protections() const { return protections_; }
    TimePoint End() const { return end_; }
    size_t FileCount() const { return blocks_.size() + empty_.size(); }
    std::vector<long> AllFiles() const;
    bool IsEmptyFile(long file) const;
    std::set<TimePoint> RecyclableKeys() const;
    unsigned long TrackSize() const;
    // Bytes left in the newest block's file; 0 without a block.
    unsigned long RoomInLastBlock() const;
    // Every chunk in time order.
    std::vector<ModelChunk> Chunks() const;

  private:
    // The next block's file: the oldest empty file, else the file of the
    // oldest unprotected block, which is dropped.
    std::optional<long> TakeFileForNewBlock();
    // Every protection whose range the newest block lies in (overlapping it,
    // or ending where the block starts) holds it, whenever it was recorded.
    void HoldNewestBlock();

    const unsigned long fileSize_;
    ModelBlocks blocks_;
    std::deque<long> empty_;
    std::map<unsigned long, std::set<TimePoint>> protections_;
    std::map<unsigned long, std::pair<TimePoint, TimePoint>> ranges_;
    TimePoint end_;
    TimePoint accumulated_;
    unsigned long counter_ = 0;
};

Refusal TrackModel::Append(TimePoint tp, TimePoint duration, unsigned long size,
                           Placement& placed) {
    if (end_ > tp)
        return "Chunk's timepoint";
    bool first = false;
    if (blocks_.empty()) {
        if (empty_.empty())
            return "You must call GrowTrack";
        blocks_[tp].file = empty_.front();
        empty_.pop_front();
        accumulated_ = TimePoint();
        first = true;
    } else if (RoomInLastBlock() < size) {
        HoldNewestBlock();
        std::optional<long> file = TakeFileForNewBlock();
        if (!file)
            return "No more recyclable file";
        blocks_[tp].file = *file;
    }
    const bool opened = blocks_.rbegin()->second.chunks.empty();
    // A chunk never starts before an existing block ends: the newest key is
    // the block that takes it.
    ModelBlock& block = blocks_.rbegin()->second;
    placed = {block.file, block.used, block.chunks.size(), first ? 0 : counter_, accumulated_};
    block.chunks.push_back({tp, duration, size, block.used});
    block.used += size;
    ++counter_;
    accumulated_ += duration;
    end_ = tp + duration;
    if (opened)
        HoldNewestBlock();
    return "";
}

void TrackModel::HoldNewestBlock() {
    auto& [key, block] = *blocks_.rbegin();
    if (block.chunks.empty())
        return;
    for (const auto& [id, range] : ranges_) {
        if (block.IsBetween(range.first, range.second) || block.In() == range.second) {
            block.protections.insert(id);
            protections_[id].insert(key);
        }
    }
}

std::optional<long> TrackModel::TakeFileForNewBlock() {
    if (!empty_.empty()) {
        long file = empty_.front();
        empty_.pop_front();
        return file;
    }
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
        if (it->second.protections.empty()) {
            long file = it->second.file;
            blocks_.erase(it);
            return file;
        }
    }
    return std::nullopt;
}

bool TrackModel::Protect(unsigned long id, TimePoint in, TimePoint out) {
    if (id == 0 || out <= in || protections_.count(id) != 0 || blocks_.empty())
        return false;
    auto it = blocks_.upper_bound(in);
    if (it != blocks_.begin())
        --it;
    std::set<TimePoint> keys;
    for (; it != blocks_.end() && it->second.IsBetween(in, out); ++it) {
        it->second.protections.insert(id);
        keys.insert(it->first);
    }
    if (keys.empty())
        return false;
    protections_[id] = keys;
    ranges_[id] = {in, out};
    return true;
}

std::optional<unsigned long> TrackModel::Unprotect(unsigned long id) {
    auto protection = protections_.find(id);
    if (protection == protections_.end())
        return std::nullopt;
    unsigned long freed = 0;
    for (const TimePoint& key : protection->second) {
        auto block = blocks_.find(key);
        if (block == blocks_.end())
            continue;  // forced out while protected
        block->second.protections.erase(id);
        if (block->second.protections.empty())
            ++freed;
    }
    protections_.erase(protection);
    ranges_.erase(id);
    return freed;
}

void TrackModel::InsertFiles(const std::vector<long>& files) {
    empty_.insert(empty_.end(), files.begin(), files.end());
}

std::vector<std::pair<long, bool>> TrackModel::RemoveFiles(unsigned long size) {
    std::vector<std::pair<long, bool>> given;
    unsigned long taken = 0;
    while (taken < size && !empty_.empty()) {
        given.emplace_back(empty_.front(), true);
        empty_.pop_front();
        taken += fileSize_;
    }
    for (auto it = blocks_.begin(); taken < size && it != blocks_.end();) {
        if (!it->second.protections.empty()) {
            ++it;
            continue;
        }
        given.emplace_back(it->second.file, false);
        taken += fileSize_;
        it = blocks_.erase(it);
    }
    return given;
}

bool TrackModel::ForceRemoveFiles(const std::vector<long>& files) {
    bool allFound = true;
    for (long file : files) {
        auto empty = std::find(empty_.begin(), empty_.end(), file);
        if (empty != empty_.end()) {
            empty_.erase(empty);
            continue;
        }
        auto block = std::find_if(blocks_.begin(), blocks_.end(),
                                  [&](const auto& entry) { return entry.second.file == file; });
        if (block != blocks_.end())
            blocks_.erase(block);
        else
            allFound = false;
    }
    return allFound;
}

void TrackModel::Clear() {
    for (auto it = blocks_.begin(); it != blocks_.end();) {
        if (!it->second.protections.empty()) {
            ++it;
            continue;
        }
        empty_.push_back(it->second.file);
        it = blocks_.erase(it);
    }
    if (!blocks_.empty())
        end_ = blocks_.rbegin()->second.Out();
}

std::vector<long> TrackModel::AllFiles() const {
    std::vector<long> files(empty_.begin(), empty_.end());
    for (const auto& [key, block] : blocks_)
        files.push_back(block.file);
    return files;
}

bool TrackModel::IsEmptyFile(long file) const {
    return std::find(empty_.begin(), empty_.end(), file) != empty_.end();
}

std::set<TimePoint> TrackModel::RecyclableKeys() const {
    std::set<TimePoint> keys;
    for (const auto& [key, block] : blocks_) {
        if (block.protections.empty())
            keys.insert(key);
    }
    return keys;
}

unsigned long TrackModel::TrackSize() const {
    unsigned long size = 0;
    for (const auto& [key, block] : blocks_)
        size += block.used - kHeader;
    return size;
}

unsigned long TrackModel::RoomInLastBlock() const {
    return blocks_.empty() ? 0 : fileSize_ - blocks_.rbegin()->second.used;
}

std::vector<ModelChunk> TrackModel::Chunks() const {
    std::vector<ModelChunk> chunks;
    for (const auto& [key, block] : blocks_)
        chunks.insert(chunks.end(), block.chunks.begin(), block.chunks.end());
    return chunks;
}

// Drives the manager and the model with the same random operations and
// compares them after every step. With a ChunkWriter, chunks are written to
// the files and saved to the database as the track writer does; the writer
// saves its current file before every operation that takes files away, as
// the database would otherwise miss rows the operation removes.
class RandomLoop {
  public:
    RandomLoop(uint64_t seed, TrackFixture& track, LoopRecordingFileManager& manager,
               ChunkWriter* writer, unsigned long fileSize, unsigned long minChunk)
        : random_(seed),
          track_(track),
          manager_(manager),
          writer_(writer),
          model_(fileSize),
          fileSize_(fileSize),
          minChunk_(minChunk) {
        for (const ChunkFile& file : track.Files())
            files_.emplace(file.GetFileNumber(), file);
        model_.InsertFiles(Numbers(track.Files()));
    }

    // Stops at the first failure.
    void Run(int steps);

  private:
    void Step();
    void Append();
    void Protect();
    void Unprotect();
    void InsertFiles();
    void RemoveFiles();
    void ForceRemoveFiles();
    void Clear();

    void Check();
    void CheckFiles(const std::map<TimePoint, FileSystem::Block>& blocks);
    void CheckCounters(const std::map<TimePoint, FileSystem::Block>& blocks);
    void CheckLookups();
    void CheckNavigation(TimePoint t, const std::vector<ModelChunk>& chunks);

    int64_t Uniform(int64_t low, int64_t high) {
        return std::uniform_int_distribution<int64_t>(low, high)(random_);
    }
    unsigned long ChunkSize();
    TimePoint ProtectionStart(const ModelBlock& block);
    TimePoint ProtectionEnd(TimePoint in);
    long PickProtectionId();
    TimePoint RandomInstant(const std::vector<ModelChunk>& chunks);
    void SaveWrittenChunks() {
        if (writer_ != nullptr)
            writer_->Finish();
    }
    static std::vector<long> Numbers(const std::vector<ChunkFile>& files);
    size_t ManagerFileCount() const {
        return manager_.GetEmptyFiles().size() + manager_.GetBlocks().size();
    }

    std::mt19937_64 random_;
    TrackFixture& track_;
    LoopRecordingFileManager& manager_;
    ChunkWriter* writer_;
    TrackModel model_;
    const unsigned long fileSize_;
    const unsigned long minChunk_;
    std::map<long, ChunkFile> files_;  // every file ever created, by number
    long nextProtectionId_ = 1;
    std::string op_;
};

void RandomLoop::Run(int steps) {
    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE(testing::Message() << "step " << step);
        Step();
        if (!testing::Test::HasFailure())
            Check();
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "after " << op_;
            return;
        }
    }
}

void RandomLoop::Step() {
    if (model_.FileCount() < kMinFiles)
        return InsertFiles();
    const int64_t roll = Uniform(0, 999);
    if (roll < 860)
        return Append();
    if (roll < 900)
        return model_.Protections().size() < kMaxProtections ? Protect() : Unprotect();
    if (roll < 930)
        return Unprotect();
    if (roll < 950)
        return InsertFiles();
    if (roll < 970)
        return RemoveFiles();
    if (roll < 986)
        return ForceRemoveFiles();
    Clear();
}

unsigned long RandomLoop::ChunkSize() {
    const unsigned long largest = fileSize_ - kHeader;
    const unsigned long room = model_.RoomInLastBlock();
    const int64_t roll = Uniform(0, 99);
    if (roll < 8 && room >= minChunk_)
        return room;  // fills the file to its last byte
    if (roll < 12 && room + 1 >= minChunk_ && room + 1 <= largest)
        return room + 1;  // one byte too many: a new block
    if (roll < 15)
        return largest;
    const unsigned long cap = roll < 40 ? largest / 2 : largest / 8;
    return static_cast<unsigned long>(Uniform(minChunk_, cap));
}

void RandomLoop::Append() {
    const TimePoint duration = Ns(Uniform(1'000'000, 40'000'000));
    TimePoint tp = model_.End();
    const int64_t roll = Uniform(0, 99);
    if (roll < 10)
        tp += Ns(Uniform(1, 2'000'000'000));  // a gap
    else if (roll < 12)
        tp -= Ns(Uniform(1, 5'000'000));  // overlaps the end: refused
    const unsigned long size = ChunkSize();
    op_ = "Append " + std::to_string(tp.ToNanoseconds()) + "ns +" +
          std::to_string(duration.ToNanoseconds()) + "ns " + std::to_string(size) + "B";

    const size_t filesBefore = ManagerFileCount();
    Placement expected;
    const Refusal refusal = model_.Append(tp, duration, size, expected);
    try {
        FileSystem::Chunk chunk = writer_ != nullptr ? writer_->Write(tp, duration, size)
                                                     : manager_.Append(tp, duration, size);
        EXPECT_EQ(refusal, "") << "accepted " << chunk;
        EXPECT_EQ(chunk.location.file.GetFileNumber(), expected.file) << chunk;
        EXPECT_EQ(chunk.location.offset, expected.offset) << chunk;
        EXPECT_EQ(chunk.location.chunkIndex, expected.index) << chunk;
        EXPECT_EQ(chunk.sequenceNumber, expected.sequence) << chunk;
        EXPECT_EQ(chunk.accumulatedDuration, expected.accumulated) << chunk;
    } catch (const std::runtime_error& e) {
        EXPECT_NE(refusal, "") << "refused: " << e.what();
        EXPECT_NE(std::string(e.what()).find(refusal), std::string::npos)
            << e.what() << " instead of " << refusal;
    }
    EXPECT_EQ(ManagerFileCount(), filesBefore) << "Append changed the track's files";
}

TimePoint RandomLoop::ProtectionStart(const ModelBlock& block) {
    const int64_t span = (block.Out() - block.In()).ToNanoseconds();
    switch (Uniform(0, 3)) {
        case 0:
            return block.In();
        case 1:
            return block.In() + Ns(Uniform(0, span - 1));  // inside the block
        case 2:
            return block.In() - Ns(Uniform(1, 500'000'000));  // before it
        default:
            return block.Out() + Ns(Uniform(0, 100'000'000));  // after it
    }
}

TimePoint RandomLoop::ProtectionEnd(TimePoint in) {
    // Around the start of a later block, or a short range.
    auto later = model_.Blocks().upper_bound(in);
    std::advance(later,
                 std::min<int64_t>(Uniform(0, 2), std::distance(later, model_.Blocks().end())));
    if (Uniform(0, 9) == 0)
        return in + Ns(Uniform(1, 3'000'000'000));  // reaching blocks not recorded yet
    if (later == model_.Blocks().end() || Uniform(0, 3) == 0)
        return in + Ns(Uniform(0, 100'000'000));  // 0 ns: an empty range, refused
    return later->first + Ns(Uniform(-1, 1));
}

long RandomLoop::PickProtectionId() {
    const int64_t roll = Uniform(0, 99);
    if (roll < 3)
        return 0;
    if (roll < 6 && !model_.Protections().empty())
        return static_cast<long>(model_.Protections().begin()->first);  // in use
    return nextProtectionId_++;
}

void RandomLoop::Protect() {
    const long id = PickProtectionId();
    TimePoint in = Ns(Uniform(0, 1'000'000'000));
    if (!model_.Blocks().empty()) {
        auto block = model_.Blocks().begin();
        std::advance(block, Uniform(0, static_cast<int64_t>(model_.Blocks().size()) - 1));
        in = ProtectionStart(block->second);
    }
    const TimePoint out = ProtectionEnd(in);
    op_ = "Protect " + std::to_string(id) + " from " + std::to_string(in.ToNanoseconds()) + " to " +
          std::to_string(out.ToNanoseconds());
    const bool accepted = model_.Protect(static_cast<unsigned long>(id), in, out);
    try {
        manager_.Protect(id, in, out);
        EXPECT_TRUE(accepted) << "accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_FALSE(accepted) << "refused: " << e.what();
    }
}

void RandomLoop::Unprotect() {
    long id = nextProtectionId_ + 1000;  // never issued
    const auto& protections = model_.Protections();
    if (!protections.empty() && Uniform(0, 9) != 0) {
        auto it = protections.begin();
        std::advance(it, Uniform(0, static_cast<int64_t>(protections.size()) - 1));
        id = static_cast<long>(it->first);
    }
    op_ = "Unprotect " + std::to_string(id);
    const std::optional<unsigned long> freed = model_.Unprotect(static_cast<unsigned long>(id));
    try {
        const unsigned long got = manager_.Unprotect(id);
        ASSERT_TRUE(freed.has_value()) << "accepted";
        EXPECT_EQ(got, *freed);
    } catch (const std::runtime_error& e) {
        EXPECT_FALSE(freed.has_value()) << "refused: " << e.what();
    }
}

void RandomLoop::InsertFiles() {
    if (model_.FileCount() >= kMaxFiles)
        return RemoveFiles();
    const std::vector<ChunkFile> added =
        track_.AddFiles(static_cast<int>(Uniform(1, 3)), fileSize_);
    op_ = "InsertFiles " + std::to_string(added.size());
    for (const ChunkFile& file : added)
        files_.emplace(file.GetFileNumber(), file);
    manager_.InsertFiles(added);
    model_.InsertFiles(Numbers(added));
}

void RandomLoop::RemoveFiles() {
    if (model_.FileCount() <= kMinFiles)
        return InsertFiles();
    const unsigned long files = static_cast<unsigned long>(Uniform(1, 2));
    const unsigned long sizes[] = {1, files * fileSize_ - 1, files * fileSize_,
                                   files * fileSize_ + 1, ~0UL};
    const unsigned long size = sizes[Uniform(0, 99) < 3 ? 4 : Uniform(0, 3)];
    op_ = "RemoveFiles " + std::to_string(size);
    SaveWrittenChunks();
    const std::vector<std::pair<long, bool>> expected = model_.RemoveFiles(size);
    const std::vector<ChunkFile> given = manager_.RemoveFiles(size);
    std::vector<std::pair<long, bool>> got;
    for (const ChunkFile& file : given)
        got.emplace_back(file.GetFileNumber(), file.IsFromEmptyFile());
    EXPECT_EQ(got, expected);
    manager_.RemoveFiles(given);
}

void RandomLoop::ForceRemoveFiles() {
    if (model_.FileCount() <= kMinFiles)
        return InsertFiles();
    std::vector<long> owned = model_.AllFiles();
    std::shuffle(owned.begin(), owned.end(), random_);
    owned.resize(static_cast<size_t>(Uniform(1, 2)));
    // Flags as the caller knows them, for the database.
    std::vector<ChunkFile> files;
    for (long number : owned) {
        files.push_back(files_.at(number));
        files.back().SetFromEmptyFile(model_.IsEmptyFile(number));
    }
    std::vector<long> named = owned;
    if (Uniform(0, 4) == 0) {
        named.push_back(1'000'000);  // never the track's
        files.emplace_back(1'000'000, 8, static_cast<long>(fileSize_), track_.TrackId());
    }
    op_ = "ForceRemoveFiles " + std::to_string(named.size());
    SaveWrittenChunks();
    const bool expected = model_.ForceRemoveFiles(named);
    EXPECT_EQ(manager_.ForceRemoveFiles(files), expected);
    files.resize(owned.size());
    manager_.RemoveFiles(files);
}

void RandomLoop::Clear() {
    op_ = "Clear";
    SaveWrittenChunks();
    model_.Clear();
    manager_.Clear();
}

std::vector<long> RandomLoop::Numbers(const std::vector<ChunkFile>& files) {
    std::vector<long> numbers;
    for (const ChunkFile& file : files)
        numbers.push_back(file.GetFileNumber());
    return numbers;
}

void RandomLoop::Check() {
    const std::map<TimePoint, FileSystem::Block> blocks = manager_.GetBlocks();
    EXPECT_EQ(ViewOf(blocks), model_.Blocks());
    CheckFiles(blocks);
    CheckCounters(blocks);
    EXPECT_TRUE(manager_.CheckInvariant());
    CheckLookups();
    const std::vector<ModelChunk> chunks = model_.Chunks();
    for (int i = 0; i < 3; ++i)
        CheckNavigation(RandomInstant(chunks), chunks);
}

void RandomLoop::CheckFiles(const std::map<TimePoint, FileSystem::Block>& blocks) {
    std::set<long> blockFiles;
    std::set<TimePoint> unprotected;
    for (const auto& [key, block] : blocks) {
        EXPECT_TRUE(blockFiles.insert(block.GetChunkFile().GetFileNumber()).second)
            << "two blocks share file " << block.GetChunkFile();
        if (block.GetProtections().empty())
            unprotected.insert(key);
    }
    std::vector<long> empties;
    for (const ChunkFile& file : manager_.GetEmptyFiles()) {
        empties.push_back(file.GetFileNumber());
        EXPECT_EQ(blockFiles.count(file.GetFileNumber()), 0u) << "empty file in a block " << file;
    }
    EXPECT_EQ(empties, std::vector<long>(model_.EmptyFiles().begin(), model_.EmptyFiles().end()));
    const std::set<TimePoint> recyclable = manager_.GetRecyclableKeys();
    EXPECT_EQ(recyclable, unprotected);
    EXPECT_EQ(recyclable, model_.RecyclableKeys());
    EXPECT_EQ(manager_.GetProtections(), model_.Protections());
}

void RandomLoop::CheckCounters(const std::map<TimePoint, FileSystem::Block>& blocks) {
    unsigned long payload = 0;
    for (const auto& [key, block] : blocks) {
        for (const auto& [tp, chunk] : block.GetChunks())
            payload += chunk.location.size;
    }
    EXPECT_EQ(manager_.GetTrackSize(), payload);
    EXPECT_EQ(payload, model_.TrackSize());
    EXPECT_EQ(manager_.GetMaxTrackSize(),
              fileSize_ * (manager_.GetEmptyFiles().size() + blocks.size()));
    const std::set<TimePoint> recyclable = model_.RecyclableKeys();
    EXPECT_EQ(manager_.GetBeginningOfTrack(),
              recyclable.empty() ? TimePoint() : *recyclable.begin());
    EXPECT_EQ(manager_.GetEndOfTrack(), model_.End());
}

void RandomLoop::CheckLookups() {
    for (const auto& [key, block] : model_.Blocks()) {
        for (const ModelChunk& chunk : block.chunks) {
            auto handle = manager_.Lookup(chunk.tp);
            ASSERT_TRUE(handle) << "lost " << chunk << " of file " << block.file;
            const FileSystem::Chunk found = handle->GetChunk();
            EXPECT_EQ(found.timepoint, chunk.tp);
            EXPECT_EQ(found.location.file.GetFileNumber(), block.file);
            EXPECT_EQ(found.location.offset, chunk.offset);
        }
    }
}

TimePoint RandomLoop::RandomInstant(const std::vector<ModelChunk>& chunks) {
    if (chunks.empty() || Uniform(0, 4) == 0)
        return model_.End() + Ns(Uniform(-3'000'000'000, 1'000'000'000));
    const ModelChunk& c =
        chunks[static_cast<size_t>(Uniform(0, static_cast<int64_t>(chunks.size()) - 1))];
    switch (Uniform(0, 3)) {
        case 0:
            return c.tp;
        case 1:
            return c.tp - Ns(1);
        case 2:
            return c.End();
        default:
            return c.tp + Ns(Uniform(0, c.duration.ToNanoseconds() - 1));
    }
}

// Blocks never overlap, so the chunks of the whole track, in order, answer
// every search.
void RandomLoop::CheckNavigation(TimePoint t, const std::vector<ModelChunk>& chunks) {
    SCOPED_TRACE(testing::Message() << "at " << t.ToNanoseconds() << "ns");
    const TimePoint none = Ns(-77);
    TimePoint lookup = none, next = none, previous = none;
    for (const ModelChunk& c : chunks) {
        if (c.tp <= t && t < c.End())
            lookup = c.tp;
        if (c.tp > t && next == none)
            next = c.tp;
        if (c.End() <= t)
            previous = c.tp;
    }
    auto at = [&](const IFileSystemManager::ChunkHandle& handle) {
        return handle ? handle->GetChunk().timepoint : none;
    };
    EXPECT_EQ(at(manager_.Lookup(t)), lookup);
    TimePoint found = none;
    EXPECT_EQ(at(manager_.Next(t, found)), next);
    EXPECT_EQ(found, next);
    found = none;
    EXPECT_EQ(at(manager_.Previous(t, found)), previous);
    EXPECT_EQ(found, previous);
    found = none;
    EXPECT_EQ(at(manager_.GetFirstChunkLocation(found)), chunks.empty() ? none : chunks[0].tp);
    EXPECT_EQ(found, chunks.empty() ? none : chunks[0].tp);
    EXPECT_EQ(at(manager_.GetLastChunkLocation(found)), chunks.empty() ? none : chunks.back().tp);
}

uint64_t SeedForThisTest() {
    const uint64_t seed = RunSeed();
    testing::Test::RecordProperty("seed", std::to_string(seed));
    std::cout << "LOOPSTORE_SEED=" << seed << std::endl;
    return seed;
}

// Blocks (time points, durations, locations), empty files and sizes; not the
// protections, which live in another database.
void ExpectSameIndex(const LoopRecordingFileManager& reopened,
                     const LoopRecordingFileManager& original) {
    ModelBlocks expected = ViewOf(original.GetBlocks());
    for (auto& [key, block] : expected)
        block.protections.clear();
    EXPECT_EQ(ViewOf(reopened.GetBlocks()), expected);
    std::set<long> reopenedEmpty, originalEmpty;
    for (const ChunkFile& file : reopened.GetEmptyFiles())
        reopenedEmpty.insert(file.GetFileNumber());
    for (const ChunkFile& file : original.GetEmptyFiles())
        originalEmpty.insert(file.GetFileNumber());
    EXPECT_EQ(reopenedEmpty, originalEmpty);
    EXPECT_EQ(reopened.GetMaxTrackSize(), original.GetMaxTrackSize());
    EXPECT_EQ(reopened.GetTrackSize(), original.GetTrackSize());
}

}  // namespace

TEST(LoopRecordingRandom, InRamLoopFollowsTheRecyclingRules) {
    const uint64_t seed = SeedForThisTest();
    SCOPED_TRACE(testing::Message() << "LOOPSTORE_SEED=" << seed);
    TrackFixture track(7, 5, 4096);
    auto manager = track.NewManagerWithFiles();
    // Each recycled file would otherwise cost an fsync of the database, and
    // this run recycles hundreds of files to check the index, not the disk.
    manager->SetDurableRecycling(false);
    RandomLoop loop(seed, track, *manager, nullptr, 4096, 1);
    loop.Run(5000);
}

TEST(LoopRecordingRandom, WrittenLoopReopensToTheSameIndex) {
    const uint64_t seed = SeedForThisTest();
    SCOPED_TRACE(testing::Message() << "LOOPSTORE_SEED=" << seed);
    TrackFixture track(8, 4, 2048);
    auto manager = track.NewManagerWithFiles();
    {
        ChunkWriter writer(*manager, track.Root());
        RandomLoop loop(seed, track, *manager, &writer, 2048, 52);
        loop.Run(400);
    }
    if (HasFailure())
        return;
    loopstore::test::ExpectChunksReadable(*manager, track.Root());
    auto reopened = track.OpenManager();
    ExpectSameIndex(*reopened, *manager);
    // The database knows the chunks, not where the track ended: a newest
    // block given back leaves the end at the newest remaining chunk.
    const auto blocks = manager->GetBlocks();
    EXPECT_EQ(reopened->GetEndOfTrack(),
              blocks.empty() ? TimePoint() : blocks.rbegin()->second.GetTcOut());
    EXPECT_TRUE(reopened->CheckInvariant());
}
