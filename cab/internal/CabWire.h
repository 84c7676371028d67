// The broker's wire vocabulary: subjects, header names, limits, name rules
// and small helpers for NATS messages. Everything here is pure and thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nats/nats.h>

namespace cabwire {

extern const char* const kProto;      // "Cab-Proto": protocol version, "1"
extern const char* const kFlags;      // "Cab-Flags": the request's CABFLAGS (decimal)
extern const char* const kStatus;     // "Cab-Status": the answer's status (decimal int32)
extern const char* const kError;      // "Cab-Error": text of a failure
extern const char* const kErrorCode;  // "Cab-Error-Code": code of a thrown CabException
extern const char* const kSize;       // "Cab-Size": total bytes of a reply sent in parts
extern const char* const kParts;      // "Cab-Parts": number of parts
extern const char* const kPart;       // "Cab-Part": index of this part, from 0
extern const char* const kCreditTo;   // "Cab-Credit-To": where the requester sends credit
extern const char* const kWindow;     // "Cab-Window": parts the responder sends ahead of credit
extern const char* const kReceived;   // "Cab-Received": parts the requester has consumed
extern const char* const kCancel;     // "Cab-Cancel": the requester gave up the transfer

const char* const kProtoVersion = "1";
const uint64_t kMaxReply = 4ull << 30;  // 4 GiB
const size_t kHeaderRoom = 4096;        // kept free for headers in every message
const size_t kMaxPart = 4u << 20;       // parts are at most 4 MiB
const size_t kWindowBytes = 8u << 20;   // at most 8 MiB of one transfer in flight

// 1-128 characters of [A-Za-z0-9_-]: a satellite, service or host name.
bool validName(const char* name);
// The target of a request: a satellite name, or "<satellite>@<host>" (one
// '@', both sides valid names) for the instance of that satellite on one host.
bool validTarget(const char* target);
// A host name as it appears in a host-scoped target: lower case, so that
// "NAS" and "nas" are one host. Not checked here.
std::string hostToken(const std::string& host);
// "u1, u2,u3" -> the entries, blanks trimmed, empty ones dropped.
std::vector<std::string> splitList(const std::string& list);
// "cab.<target>.<service>"; the host of a "<satellite>@<host>" target in
// lower case.
std::string serviceSubject(const std::string& target, const std::string& service);
// A request to a service goes to "<serviceSubject>.<caller>": the directory
// user who sends it, which the directory lets publish only under its own
// name, so the responder knows who asks. kAnonymous stands for a connection
// without a user (a directory with one shared token, or none).
extern const char* const kAnonymous;  // "-"
std::string requestSubject(const std::string& serviceSubject, const std::string& caller);
// What a service listens on: "<serviceSubject>.*".
std::string listenSubject(const std::string& serviceSubject);
// The caller named by a request subject (its last token); "" when that is
// neither a valid name nor kAnonymous.
std::string callerOf(const std::string& subject);
// True when an answer for `caller` may go to `reply`: a user's answers go
// only to its own inbox prefix "_INBOX_<caller>.", so nobody can have a
// satellite write into another user's inbox. Anonymous callers: any subject.
bool replyAllowed(const std::string& caller, const std::string& reply);

// Header value or "" when absent.
std::string header(natsMsg* msg, const char* key);
// The value of `key` exactly as it came over the wire (the client library
// trims blanks from what header() returns). Call it before any other header
// access on a received message: that access rewrites the raw block. When the
// client already lifted the headers, a value with blanks around it comes back
// as the trimmed value with one blank on each side that had any. False when
// the block cannot be read; then only header() can tell.
bool rawHeader(natsMsg* msg, const char* key, std::string* value, bool* present);
// Destroys a message on the calling thread. The client library would hand it
// to its collector thread instead, waking that thread for every message and
// leaving large ones alive until it runs.
void destroy(natsMsg* msg);
// Parses a decimal header; false when absent or not a number in [min, max].
bool headerInt(natsMsg* msg, const char* key, int64_t min, int64_t max, int64_t* value);

// Payload bytes one message may carry on a server with this max payload
// (room is kept for headers); a request or answer up to this goes whole.
size_t messageRoom(int64_t maxPayload);
// Bytes of one part of a larger answer: messageRoom, at most kMaxPart.
size_t partSize(int64_t maxPayload);
// Parts sent ahead of credit for this part size.
int64_t windowParts(size_t partBytes);

}  // namespace cabwire
