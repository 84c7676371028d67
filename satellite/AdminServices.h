// The proxy's support services that only the directory's admin role may call:
// the satellite refuses them inline, kivctl explains a refusal with them, and
// scripts/cab-directory-users denies them to every other user (a test holds
// the script to this list).
#pragma once

inline constexpr const char* kAdminServices[] = {"my-KIV_TailLog", "GetKivConfig", "ZipLogs", "GenerateCrash"};
