// Plain NATS messages for tests that speak to satellites below the library.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <string>

namespace kivtest {

// Header `key` of `m`, "" when absent.
inline std::string header(natsMsg* m, const char* key) {
    const char* v = nullptr;
    return m && natsMsgHeader_Get(m, key, &v) == NATS_OK && v ? v : "";
}

// Publishes to `subject` a message with one header, `payload` and the reply subject `reply`.
inline natsStatus publish(natsConnection* nc, const std::string& subject, const char* key, const char* value,
                          const std::string& payload = "", const char* reply = nullptr) {
    natsMsg* m = nullptr;
    natsStatus s = natsMsg_Create(&m, subject.c_str(), reply, payload.data(), (int)payload.size());
    if (s != NATS_OK) return s;
    if (key) natsMsgHeader_Set(m, key, value);
    s = natsConnection_PublishMsg(nc, m);
    natsMsg_Destroy(m);
    return s;
}

typedef std::unique_ptr<natsMsg, decltype(&natsMsg_Destroy)> Msg;

// A plain connection to `url` with one synchronous subscription to `subject`;
// both end with the object. ok() is false when either failed.
struct RawInbox {
    RawInbox(const std::string& url, const std::string& subject) {
        if (natsConnection_ConnectTo(&nc, url.c_str()) == NATS_OK)
            natsConnection_SubscribeSync(&sub, nc, subject.c_str());
    }
    ~RawInbox() {
        natsSubscription_Destroy(sub);
        natsConnection_Destroy(nc);
    }
    bool ok() const { return sub != nullptr; }
    // The next message, or null after `ms`.
    Msg next(int ms = 60000) {
        natsMsg* m = nullptr;
        natsSubscription_NextMsg(&m, sub, ms);
        return Msg(m, &natsMsg_Destroy);
    }
    natsConnection* nc = nullptr;
    natsSubscription* sub = nullptr;
};

}  // namespace kivtest
