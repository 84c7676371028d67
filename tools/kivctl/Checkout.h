// The folder `make run` keeps its files in (var/ of the checkout), found from
// the current folder upwards: a folder holding scripts/run-local and var/root.
// kivctl uses it when run inside a checkout without KIV_ROOT, for the crash
// reports and the proxy's settings.
#pragma once

#include <string>

namespace kivctl {

// ".../var" of the checkout around the current folder, or "" when there is none.
std::string makeRunFolder();

}  // namespace kivctl
