// Which settings hold credentials, and how they are shown. A value whose name
// ends, ignoring case, in "token", "password", "SeedFile", or "SeedFile"
// without its "File" (an nkey, as in "cabDirectory.nkeySeedFile") is a
// credential: the configuration report and `kivctl config` show it as
// "********" and nothing logs it.
#pragma once

#include "common/CStdStr.h"

namespace SettingsSecrets {

// What a credential is shown as.
extern const char* const kMask;

// True when the value named `name` holds a credential.
bool IsSecretName(const CStdStr& name);

// `value`, or kMask when `name` names a credential.
CStdStr Shown(const CStdStr& name, const CStdStr& value);

}  // namespace SettingsSecrets
