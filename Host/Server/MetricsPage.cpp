#include "Host/Server/MetricsPage.h"

#include <map>
#include <string>
#include <utility>

#include "Platform/Time/TimePoint.h"

namespace loopstore::host {

namespace {

using Statistics = Protocol::TrackStatistics;

struct TrackFamily {
    const char* name;
    const char* type;
    const char* help;
    double (*value)(const Statistics&);
};

constexpr TrackFamily kTrackFamilies[] = {
    {"loopstore_track_written_bytes_total", "counter",
     "Chunk bytes appended to the track since the storage opened",
     [](const Statistics& s) { return static_cast<double>(s.bytes_written()); }},
    {"loopstore_track_written_chunks_total", "counter",
     "Chunks appended to the track since the storage opened",
     [](const Statistics& s) { return static_cast<double>(s.chunks_written()); }},
    {"loopstore_track_recycled_files_total", "counter",
     "Files of the track taken back for new chunks since the storage opened",
     [](const Statistics& s) { return static_cast<double>(s.files_recycled()); }},
    {"loopstore_track_cache_bytes", "gauge", "Bytes of the track's chunks held in writer caches",
     [](const Statistics& s) { return static_cast<double>(s.cache_bytes()); }},
    {"loopstore_track_protections", "gauge", "Protections on the track",
     [](const Statistics& s) { return static_cast<double>(s.protections()); }},
};

PrometheusText::Labels TrackLabel(int64_t trackId) {
    return {{"track", std::to_string(trackId)}};
}

}  // namespace

MetricsPage::MetricsPage(MoreldStorageApi::Service& storage, const ServerMetrics& metrics,
                         std::function<SharedCacheUse()> cacheUse)
    : storage_(storage), metrics_(metrics), cacheUse_(std::move(cacheUse)) {}

HttpResponse MetricsPage::Answer(const HttpRequest&) const {
    PrometheusText out;
    WriteTrackStates(out);
    WriteTrackCounters(out);
    WriteWorkers(out);
    WriteServer(out);
    metrics_.Write(out);
    return HttpResponse::Text(out.Text(), PrometheusText::kContentType);
}

void MetricsPage::WriteTrackStates(PrometheusText& out) const {
    Protocol::TrackList list;
    storage_.trackStorage->ListTracks(list);
    Protocol::Ids ids;
    *ids.mutable_ids() = list.ids();
    Protocol::TrackInfos infos;
    storage_.trackStorage->GetTrackInfos(ids, infos);
    out.Family("loopstore_track_size_bytes", "gauge", "Bytes of the files the track owns");
    for (const Protocol::TrackInfo& info : infos.infos())
        out.Sample("loopstore_track_size_bytes", TrackLabel(info.id()),
                   static_cast<double>(info.track_size()));
    out.Family("loopstore_track_used_bytes", "gauge", "Bytes of chunk data the track holds");
    for (const Protocol::TrackInfo& info : infos.infos())
        out.Sample("loopstore_track_used_bytes", TrackLabel(info.id()),
                   static_cast<double>(info.current_size()));
    const int64_t now = Moreld::Time::TimePoint::Now().ToNanoseconds();
    out.Family("loopstore_track_oldest_content_age_seconds", "gauge",
               "Age of the oldest chunk the track keeps (absent when empty)");
    for (const Protocol::TrackInfo& info : infos.infos()) {
        if (info.oldest().nanoseconds() != -1)
            out.Sample("loopstore_track_oldest_content_age_seconds", TrackLabel(info.id()),
                       static_cast<double>(now - info.oldest().nanoseconds()) / 1e9);
    }
}

void MetricsPage::WriteTrackCounters(PrometheusText& out) const {
    if (!storage_.trackTimeline)
        return;  // a storage without an index to ask keeps no such counters
    Protocol::TrackStatisticsList list;
    storage_.trackTimeline->GetTrackStatistics(Protocol::Ids(), list);
    for (const TrackFamily& family : kTrackFamilies) {
        out.Family(family.name, family.type, family.help);
        for (const Statistics& s : list.tracks())
            out.Sample(family.name, TrackLabel(s.track_id()), family.value(s));
    }
}

void MetricsPage::WriteWorkers(PrometheusText& out) const {
    Protocol::Ids workerIds;
    Protocol::Ids trackIds;
    storage_.trackStorage->GetActiveWorkers(workerIds, trackIds);
    Protocol::WorkerInfos infos;
    storage_.trackStorage->GetWorkerInfos(workerIds, infos);
    std::map<int64_t, double> throughput;
    int writers = 0;
    int readers = 0;
    for (const Protocol::WorkerInfo& info : infos.infos()) {
        if (info.type() == Protocol::WORKER_TYPE_WRITER) {
            ++writers;
            throughput[info.track_id()] += static_cast<double>(info.throughput());
        } else if (info.type() == Protocol::WORKER_TYPE_READER) {
            ++readers;
        }
    }
    out.Family("loopstore_track_write_throughput_bytes_per_second", "gauge",
               "Bytes written to the track by its writers during the last second");
    for (const auto& [track, bytes] : throughput)
        out.Sample("loopstore_track_write_throughput_bytes_per_second", TrackLabel(track), bytes);
    out.Family("loopstore_open_writers", "gauge", "Track writers open now");
    out.Sample("loopstore_open_writers", {}, writers);
    out.Family("loopstore_open_readers", "gauge", "Track readers open now");
    out.Sample("loopstore_open_readers", {}, readers);
}

void MetricsPage::WriteServer(PrometheusText& out) const {
    long free = 0;
    storage_.trackStorage->GetRemainingSpace(free);
    out.Family("loopstore_pool_free_bytes", "gauge", "Bytes of the files waiting in the pool");
    out.Sample("loopstore_pool_free_bytes", {}, static_cast<double>(free));
    const SharedCacheUse cache = cacheUse_();
    out.Family("loopstore_cache_bytes", "gauge", "Bytes of chunks the writers' caches hold now");
    out.Sample("loopstore_cache_bytes", {}, static_cast<double>(cache.bytes));
    out.Family("loopstore_cache_budget_bytes", "gauge",
               "Memory the writers' caches share (0: each keeps its own bound)");
    out.Sample("loopstore_cache_budget_bytes", {}, static_cast<double>(cache.budget));
}

}  // namespace loopstore::host
