// Sending an answer: one message when it fits in one, else parts of at
// most cabwire::partSize() bytes; the responder runs at most a window of parts
// ahead of the credit the requester grants, so neither the directory nor
// either side buffers more than a few MiB of one transfer.
#include <algorithm>
#include <memory>

#include "cab/Cab1.h"
#include "cab/CabLog.h"
#include "cab/CabSatelliteState.h"
#include "cab/CabWire.h"
#include "cab/ZeroBytes.h"

namespace {

// Header values cannot hold line breaks.
std::string headerSafe(const std::string& s) {
    std::string r = s;
    for (char& c : r)
        if (c == '\r' || c == '\n') c = ' ';
    return r;
}

natsMsg* makeMsg(const std::string& subject, const char* data, size_t len) {
    natsMsg* m = nullptr;
    if (natsMsg_Create(&m, subject.c_str(), nullptr, data, (int)len) != NATS_OK) return nullptr;
    return m;
}

// A message carrying bytes [offset, offset + len) of the encoding. A range
// inside one array goes straight from the variant's memory; any other is
// written into the new message's own payload, so no buffer of the range is
// allocated on the side (a fresh multi-MiB block per answer costs more in
// page faults than the copy itself).
natsMsg* makeMsg(const std::string& subject, const Cab1Encoding* enc, uint64_t offset, size_t len) {
    if (!len) return makeMsg(subject, "", 0);
    if (const char* in = enc->span(offset, len)) return makeMsg(subject, in, len);
    const char* zeros = cabZeroBytes(len);
    if (!zeros) {
        std::unique_ptr<char[]> buf(new char[len]);  // not zero-filled: every byte is overwritten
        enc->copy(offset, buf.get(), len);
        return makeMsg(subject, buf.get(), len);
    }
    natsMsg* m = makeMsg(subject, zeros, len);
    // The payload is the message's own block, written before it is published.
    if (m) enc->copy(offset, const_cast<char*>(natsMsg_GetData(m)), len);
    return m;
}

void setStatusHeaders(natsMsg* m, int status, const std::string& error, int errorCode) {
    natsMsgHeader_Set(m, cabwire::kStatus, std::to_string(status).c_str());
    if (!error.empty()) natsMsgHeader_Set(m, cabwire::kError, headerSafe(error).c_str());
    if (status == CAB_E_HANDLER_EXCEPTION)
        natsMsgHeader_Set(m, cabwire::kErrorCode, std::to_string(errorCode).c_str());
}

}  // namespace

void cabSendReply(const std::shared_ptr<CabConnection>& conn, const std::string& replyTo, int status,
                  const tagVARIANT* out, const std::string& errorIn, int errorCode, int timeoutMs) {
    std::string error = errorIn;
    std::unique_ptr<Cab1Encoding> enc;
    uint64_t total = 0;
    if (out && out->vt != VT_EMPTY) {
        enc.reset(new Cab1Encoding(*out));
        if (!enc->ok()) {
            status = CAB_E_MALFORMED;
            error = "the answer cannot be encoded: " + enc->error();
            cablog::log(LOGLEVEL_ERROR, "Answer to %s refused: %s", replyTo.c_str(), error.c_str());
            enc.reset();
        } else {
            total = enc->size();
        }
    }
    if (total > cabwire::kMaxReply) {
        status = CAB_E_TOO_LARGE;
        error = "answer of " + std::to_string(total) + " bytes is larger than 4 GiB";
        cablog::log(LOGLEVEL_ERROR, "Answer to %s refused: %s", replyTo.c_str(), error.c_str());
        enc.reset();
        total = 0;
    }
    if (total <= cabwire::messageRoom(conn->maxPayload())) {
        natsMsg* m = makeMsg(replyTo, enc.get(), 0, total);
        if (!m) return;
        setStatusHeaders(m, status, error, errorCode);
        if (conn->publishMsg(m) != 0)
            cablog::log(LOGLEVEL_WARN, "Answer to %s not sent: %s", replyTo.c_str(), CabGetLastError().c_str());
        natsMsg_Destroy(m);
        return;
    }

    size_t part = cabwire::partSize(conn->maxPayload());
    uint64_t parts = (total + part - 1) / part;
    part = (size_t)((total + parts - 1) / parts);  // equal parts: no small tail message
    int64_t window = cabwire::windowParts(part);
    std::string creditTo;
    uint64_t token = 0;
    std::shared_ptr<CabMailbox> box = conn->openMailbox(&creditTo, &token);
    uint64_t received = 0;
    for (uint64_t i = 0; i < parts; ++i) {
        while ((int64_t)(i - received) >= window) {
            int st = 0;
            natsMsg* c = box->wait(cabDeadline(timeoutMs), &st);
            if (!c) {
                cablog::log(LOGLEVEL_WARN, "Transfer of %llu bytes to %s abandoned at part %llu of %llu: %s",
                            (unsigned long long)total, replyTo.c_str(), (unsigned long long)i,
                            (unsigned long long)parts, CabStatusText(st));
                conn->closeMailbox(token);
                return;
            }
            bool cancel = !cabwire::header(c, cabwire::kCancel).empty();
            int64_t r = 0;
            if (!cancel && cabwire::headerInt(c, cabwire::kReceived, 0, (int64_t)parts, &r) && (uint64_t)r > received)
                received = (uint64_t)r;
            natsMsg_Destroy(c);
            if (cancel) {
                cablog::log(LOGLEVEL_INFO, "Transfer to %s cancelled by the requester at part %llu",
                            replyTo.c_str(), (unsigned long long)i);
                conn->closeMailbox(token);
                return;
            }
        }
        uint64_t off = i * part;
        size_t len = (size_t)std::min<uint64_t>(part, total - off);
        natsMsg* m = makeMsg(replyTo, enc.get(), off, len);
        if (!m) break;
        if (i == 0) {
            setStatusHeaders(m, status, error, errorCode);
            natsMsgHeader_Set(m, cabwire::kSize, std::to_string(total).c_str());
            natsMsgHeader_Set(m, cabwire::kParts, std::to_string(parts).c_str());
            natsMsgHeader_Set(m, cabwire::kCreditTo, creditTo.c_str());
            natsMsgHeader_Set(m, cabwire::kWindow, std::to_string(window).c_str());
        }
        natsMsgHeader_Set(m, cabwire::kPart, std::to_string(i).c_str());
        int rc = conn->publishMsg(m);
        natsMsg_Destroy(m);
        if (rc != 0) {
            cablog::log(LOGLEVEL_WARN, "Transfer to %s stopped at part %llu: %s", replyTo.c_str(),
                        (unsigned long long)i, CabGetLastError().c_str());
            break;
        }
    }
    conn->closeMailbox(token);
}
