#include "Storage/Indexes/Ram/PayloadPool.h"

#include <utility>

#include "Platform/Tools/MutexLock.h"

namespace {

// Gives a chunk's payload back to the pool it came from as the chunk dies.
struct ReturnPayload {
    std::shared_ptr<PayloadPool> pool;

    void operator()(Moreld::Plexa::DataChunk* chunk) const {
        pool->Give(std::move(chunk->MutableData()));
        delete chunk;
    }
};

}  // namespace

PayloadPool::PayloadPool(size_t boundBytes) : boundBytes_(boundBytes) {}

PayloadPool::DataChunkPtr PayloadPool::MakeChunk() {
    auto chunk = std::make_unique<Moreld::Plexa::DataChunk>();
    chunk->MutableData() = Take();
    return DataChunkPtr(chunk.release(), ReturnPayload{shared_from_this()});
}

std::string PayloadPool::Take() {
    std::string buffer;
    {
        Moreld::Tools::MutexLock lock(mutex_);
        if (buffers_.empty())
            return buffer;
        buffer.swap(buffers_.back());
        buffers_.pop_back();
        keptBytes_ -= buffer.capacity();
    }
    buffer.clear();
    return buffer;
}

void PayloadPool::Give(std::string&& buffer) {
    const size_t bytes = buffer.capacity();
    if (bytes < kSmallestKept)
        return;
    std::string kept(std::move(buffer));
    Moreld::Tools::MutexLock lock(mutex_);
    if (keptBytes_ + bytes > boundBytes_)
        return;  // `kept` is freed on the way out, after the unlock
    keptBytes_ += bytes;
    buffers_.push_back(std::move(kept));
}

size_t PayloadPool::KeptBytes() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return keptBytes_;
}

size_t PayloadPool::KeptBuffers() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return buffers_.size();
}
