// What kivctl adds to a request that failed, so that the user can act on it:
// for "no such satellite or service", which of the two names is wrong and the
// nearest name that exists (asked of the directory's discovery); after a lost
// connection or a time-out, whether the satellite ended meanwhile; for a
// refusal by the directory, which user may not call what; for a handler that
// threw on a short input, which argument of the proxy's service is missing.
#pragma once

#include <string>
#include <vector>

#include "cab/CabSatellite.h"

namespace kivctl {

// One sentence for a request to `target` (SATELLITE or SATELLITE@HOST) and
// `service` that failed with the library code `status`, or "" when there is
// nothing to add. `user` is the directory user kivctl connected as ("" for
// none). Asks the directory's discovery through `client` (for up to a
// second) the first time it needs to, and keeps the answer for the run; call
// it from one thread.
std::string explainFailure(CabSatellite& client, const std::string& target, const std::string& service, int status,
                           const std::string& user);

// What kivctl says of `satellite` leaving the directory during a request to `service`.
std::string endedText(const std::string& satellite, const std::string& service);

// For a proxy service that threw on `in`: which of its arguments is missing
// ("my-KIV_TailLog takes [path, count]: the count (element 1) is missing"),
// or "" when the input has all of them or the service is not the proxy's.
std::string missingArgument(const std::string& target, const std::string& service, const tagVARIANT& in);

// The name of `names` nearest to `name` (ignoring case), if it is close
// enough to be a slip of the keyboard; else "".
std::string nearestName(const std::string& name, const std::vector<std::string>& names);

}  // namespace kivctl
