// Plain NATS messages for tests that speak to satellites below the library:
// requests with chosen headers, and reading a header of an answer.
#pragma once

#include <nats/nats.h>

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
    natsMsg_Create(&m, subject.c_str(), reply, payload.data(), (int)payload.size());
    if (key) natsMsgHeader_Set(m, key, value);
    natsStatus s = natsConnection_PublishMsg(nc, m);
    natsMsg_Destroy(m);
    return s;
}

}  // namespace kivtest
