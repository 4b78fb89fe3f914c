#pragma once

#include <cstdint>
#include <functional>

#include "Host/Http/HttpMessage.h"
#include "Host/Http/PrometheusText.h"
#include "Host/Server/ServerMetrics.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// GET /metrics: the storage's state per track and per server, and the
// server's request metrics, in the Prometheus text format. Everything is
// asked of the storage API at each scrape; nothing is kept here.
//
// Refers to the storage and the metrics, which must outlive it. Safe from
// many threads at once.
class MetricsPage {
  public:
    // The chunk cache the writers share; budget 0 when it has none.
    struct SharedCacheUse {
        uint64_t bytes = 0;
        uint64_t budget = 0;
    };

    MetricsPage(MoreldStorageApi::Service& storage, const ServerMetrics& metrics,
                std::function<SharedCacheUse()> cacheUse);

    HttpResponse Answer(const HttpRequest& request) const;

  private:
    // From the track infos: sizes and the age of the oldest content.
    void WriteTrackStates(PrometheusText& out) const;
    // From the index's statistics, when the storage has them.
    void WriteTrackCounters(PrometheusText& out) const;
    void WriteWorkers(PrometheusText& out) const;
    void WriteServer(PrometheusText& out) const;

    MoreldStorageApi::Service& storage_;
    const ServerMetrics& metrics_;
    const std::function<SharedCacheUse()> cacheUse_;
};

}  // namespace loopstore::host
