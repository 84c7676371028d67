// Answers to the NATS service-discovery requests "$SRV.PING|INFO|STATS[.NAME[.ID]]"
// in the "io.nats.micro.v1" format: the satellite is the service, its
// services are the endpoints, in the order they were added.
#include <nlohmann/json.hpp>

#include "cab/internal/CabLog.h"
#include "cab/internal/CabSatelliteState.h"

namespace {

const char* const kVersion = "1.0.0";

nlohmann::json base(CabSatelliteState* st, const char* type) KIV_REQUIRES(st->lock) {
    nlohmann::json j;
    j["type"] = type;
    j["name"] = st->name;
    j["id"] = st->id;
    j["version"] = kVersion;
    j["metadata"] = nlohmann::json::object();
    return j;
}

}  // namespace

void cabAnswerDiscovery(CabSatelliteState* st, const std::shared_ptr<CabConnection>& conn, natsMsg* msg) {
    const char* reply = natsMsg_GetReply(msg);
    const char* subject = natsMsg_GetSubject(msg);
    if (!reply || !*reply || !subject) return;
    std::string verb = subject;
    verb = verb.substr(5);  // after "$SRV."
    verb = verb.substr(0, verb.find('.'));
    nlohmann::json j;
    {
        PLockGuard guard(st->lock);
        if (verb == "PING") {
            j = base(st, "io.nats.micro.v1.ping_response");
        } else if (verb == "INFO") {
            j = base(st, "io.nats.micro.v1.info_response");
            j["description"] = "CAB satellite " + st->name;
            nlohmann::json eps = nlohmann::json::array();
            for (const auto& e : st->services) {
                if (!e->sub) continue;
                eps.push_back({{"name", e->name},
                               {"subject", e->subject},
                               {"queue_group", st->name},
                               {"metadata", {{"description", e->description}}}});
            }
            j["endpoints"] = eps;
        } else if (verb == "STATS") {
            j = base(st, "io.nats.micro.v1.stats_response");
            j["started"] = st->started;
            nlohmann::json eps = nlohmann::json::array();
            for (const auto& e : st->services) {
                if (!e->sub) continue;
                CabServiceStats s;
                {
                    PLockGuard statsGuard(e->statsLock);
                    s = e->stats;
                }
                eps.push_back({{"name", e->name},
                               {"subject", e->subject},
                               {"queue_group", st->name},
                               {"num_requests", s.requests},
                               {"num_errors", s.errors},
                               {"last_error", s.lastError},
                               {"processing_time", s.processingNs},
                               {"average_processing_time", s.requests ? s.processingNs / (int64_t)s.requests : 0}});
            }
            j["endpoints"] = eps;
        } else {
            return;
        }
    }
    std::string text = j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (conn->publish(reply, text.data(), text.size()) != 0)
        cablog::log(LOGLEVEL_WARN, "Discovery answer not sent: %s", CabGetLastError().c_str());
}
