// Preferences: the per-user preferences store under CRegistry, also used
// directly by tools. A domain (an identifier such as "com.kiv-foundry.kiv")
// is one JSON object in $XDG_CONFIG_HOME/kivfoundry/<domain>.json (or
// $HOME/.config/kivfoundry/ when XDG_CONFIG_HOME is unset or empty), mapping
// a key to a boolean, a 32-bit integer or a string.
//
// Promises:
// - Every read takes in what other processes have written. A missing domain
//   file is an empty domain, not an error.
// - A read never blocks: a domain file is opened without waiting and without
//   following a link; anything but a regular file of at most 1 MiB is refused.
// - A read that fails (refused, unreadable or unparsable file) gives the
//   values this process last read from that file, and fails only when it never
//   read it well. The refusal is reported on standard error once, until the
//   file reads well again; reports name the file, never a value.
// - Every write is a locked read-modify-write (flock on a hidden lock file
//   beside the domain file) ending in a durable replace (temporary file in the
//   same folder, fsync, rename), so concurrent writers of different keys lose
//   neither key and readers never see a half-written file.
// - Every file the store writes is mode 0600 from its creation, whatever the
//   umask (values may be credentials); folders it creates are 0700.
// - A domain file that cannot be parsed is never overwritten silently: a
//   writer renames it to "<file>.corrupt" (0600), says so on standard error,
//   then writes a fresh domain. A writer refuses a domain file it cannot read.
// - Strings are byte strings and round-trip exactly. A string that is valid
//   UTF-8 (NUL included) is stored as a JSON string; any other is stored as
//   {"$bytes": "<base64 of the bytes>"}. Key names must be valid UTF-8.
// - Entries of other JSON types (written by hand) are kept on rewrite but
//   ignored by readers.
// - Domain names are stored percent-encoded where a file name needs it ("/",
//   "%", control characters, a leading "."); "", "." and ".." and names longer
//   than 200 bytes are refused.
//
// Thread-safe: the last good contents of each file (at most 64 files) belong
// to one table behind its own mutex; the file lock serialises writers in this
// and other processes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/CStdStr.h"

namespace Preferences {

struct Value {
    enum Type { Bool, Int, String };
    Type type = String;
    bool b = false;
    int32_t i = 0;
    std::string s;

    static Value ofBool(bool v) {
        Value x;
        x.type = Bool;
        x.b = v;
        return x;
    }
    static Value ofInt(int32_t v) {
        Value x;
        x.type = Int;
        x.i = v;
        return x;
    }
    static Value ofString(const std::string& v) {
        Value x;
        x.type = String;
        x.s = v;
        return x;
    }
    bool operator==(const Value& o) const;
};

typedef std::map<std::string, Value> Domain;

// $XDG_CONFIG_HOME/kivfoundry (or $HOME/.config/kivfoundry), without a trailing "/".
CStdStr Folder();
// The file of a domain, or "" when `domain` cannot name one.
CStdStr DomainFile(const CStdStr& domain);

// Reads the whole domain (typed entries only). False, with a reason in
// *error, when the domain name is invalid or its file is unreadable or corrupt.
bool Load(const CStdStr& domain, Domain& out, CStdStr* error = nullptr);
// One value; false when the domain cannot be read or has no such key.
bool Get(const CStdStr& domain, const CStdStr& key, Value& out);

// Sets one key. False, with a reason, when the domain could not be written.
bool Set(const CStdStr& domain, const CStdStr& key, const Value& value, CStdStr* error = nullptr);
// Removes one key; *existed tells whether it was there. False on failure.
bool Remove(const CStdStr& domain, const CStdStr& key, bool* existed = nullptr, CStdStr* error = nullptr);
// Removes the whole domain file; *existed tells whether there was one.
bool RemoveDomain(const CStdStr& domain, bool* existed = nullptr, CStdStr* error = nullptr);

// The domains that have a file, sorted.
std::vector<CStdStr> Domains();

}  // namespace Preferences
