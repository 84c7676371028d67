// The settings store: a registry-like key space over per-user preference
// domains. A key path such as "Software\Kiv Foundry\Kiv\Config" names a domain
// ("com.kiv-foundry.kiv.config"), a value name names a key in it; values are
// booleans, 32-bit integers or byte strings.
//
// Each domain is one JSON file, $XDG_CONFIG_HOME/kivfoundry/<domain>.json (or
// ~/.config/kivfoundry/...). Every read takes in what other processes wrote
// and never blocks; a file that turns unreadable (not a regular file, over
// 1 MiB, unparsable) leaves the values last read from it. Every write is
// durable, mode 0600, and merged under an advisory lock, so two processes
// writing different keys of one domain lose neither. Readers never throw: they
// return false and leave the output untouched. The integer reader also reads
// a text that holds a decimal 32-bit number (blanks and a sign allowed), as
// "kivctl defaults write" stores one by default; any other value (a boolean,
// other text) it reports once on standard error and reads as missing. A domain file that cannot be
// parsed, and was never read well, fails synchronisation; a writer moves it
// aside to "<file>.corrupt".
#pragma once

#include <map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "common/CStdStr.h"

// The product's reverse-DNS identifier, put in place of "software\kiv foundry\kiv".
#define KIV_APP_IDENTIFIER "com.kiv-foundry.kiv"

class CRegistryImpl {
public:
    // Key path -> preferences domain identifier.
    CStdStr createKey(const CStdStr& keyPath);

    // The bool reader takes the key path as the domain exactly as given (no createKey).
    bool ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, bool& value);
    bool ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, int& value);
    bool ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, CStdStr& value);
    bool WriteSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, int value);
    bool WriteSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, const CStdStr& value);
    // Every string and integer value of the domain (integers as a one-character
    // string of their low 8 bits). Failures are printed on standard output.
    void ReadAllSettingsImpl(const CStdStr& keyPath, std::map<CStdStr, CStdStr>& values);
};

class CRegistry {
public:
    static boost::shared_ptr<CRegistryImpl> getInstance();
};
