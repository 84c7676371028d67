#include "host/CRegistry.h"

#include <charconv>
#include <cstdio>
#include <set>

#include "host/PThread.h"
#include "host/Preferences.h"

namespace {

// A decimal 32-bit number, optionally signed and between blanks: how a number
// stored as text ("kivctl defaults write" stores text unless told) is read.
bool numberFromText(const std::string& text, int32_t& out) {
    size_t first = text.find_first_not_of(" \t");
    size_t last = text.find_last_not_of(" \t");
    if (first == std::string::npos) return false;
    if (text[first] == '+' && first < last) {
        ++first;
        if (text[first] == '-') return false;
    }
    const char* end = text.data() + last + 1;
    int32_t value = 0;
    std::from_chars_result r = std::from_chars(text.data() + first, end, value);
    if (r.ec != std::errc() || r.ptr != end) return false;
    out = value;
    return true;
}

// Integer settings found holding something else, so each is reported once
// until it reads well again; owned by the integer reader, guarded by
// g_notNumbersLock. Bounded: a full set starts afresh.
PMutex g_notNumbersLock;
std::set<std::string> g_notNumbers KIV_GUARDED_BY(g_notNumbersLock);

void reportNotANumber(const CStdStr& domain, const CStdStr& name, bool isNumber) {
    const std::string key = domain + "\n" + name;
    {
        PLockGuard hold(g_notNumbersLock);
        if (isNumber) {
            g_notNumbers.erase(key);
            return;
        }
        if (g_notNumbers.size() >= 64) g_notNumbers.clear();
        if (!g_notNumbers.insert(key).second) return;
    }
    // Outside the lock; the value is not shown (it may be a credential).
    fprintf(stderr, "settings: warning: %s in %s is neither a number nor a text of one; the default applies\n",
            name.c_str(), domain.c_str());
}

}  // namespace

CStdStr CRegistryImpl::createKey(const CStdStr& keyPath) {
    CStdStr key = keyPath;
    key.MakeLower();
    key.Replace("software\\kiv foundry\\kiv", KIV_APP_IDENTIFIER);
    key.Replace('\\', '.');
    return key;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, bool& value) {
    // The key path is the domain exactly as given.
    Preferences::Value v;
    if (!Preferences::Get(keyPath, valueName, v) || v.type != Preferences::Value::Bool) return false;
    value = v.b;
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, int& value) {
    const CStdStr domain = createKey(keyPath);
    Preferences::Value v;
    if (!Preferences::Get(domain, valueName, v)) return false;
    int32_t number = v.i;
    bool isNumber = v.type == Preferences::Value::Int ||
                    (v.type == Preferences::Value::String && numberFromText(v.s, number));
    reportNotANumber(domain, valueName, isNumber);
    if (!isNumber) return false;
    value = number;
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, CStdStr& value) {
    Preferences::Value v;
    if (!Preferences::Get(createKey(keyPath), valueName, v) || v.type != Preferences::Value::String) return false;
    value = v.s;
    return true;
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, int value) {
    CStdStr error;
    if (Preferences::Set(createKey(keyPath), valueName, Preferences::Value::ofInt(value), &error)) return true;
    fprintf(stderr, "settings: cannot write %s: %s\n", valueName.c_str(), error.c_str());
    return false;
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr& keyPath, const CStdStr& valueName, const CStdStr& value) {
    CStdStr error;
    if (Preferences::Set(createKey(keyPath), valueName, Preferences::Value::ofString(value), &error)) return true;
    fprintf(stderr, "settings: cannot write %s: %s\n", valueName.c_str(), error.c_str());
    return false;
}

void CRegistryImpl::ReadAllSettingsImpl(const CStdStr& keyPath, std::map<CStdStr, CStdStr>& values) {
    CStdStr domain = createKey(keyPath);
    Preferences::Domain all;
    if (!Preferences::Load(domain, all)) {
        printf("synchronization failed for %s\n", domain.c_str());
        return;
    }
    if (all.empty()) {
        printf("no keys for %s\n", domain.c_str());
        return;
    }
    for (const auto& entry : all) {
        const Preferences::Value& v = entry.second;
        if (v.type == Preferences::Value::String) {
            values[entry.first] = v.s;
        } else if (v.type == Preferences::Value::Int) {
            // Deliberately one character: the low 8 bits of the number.
            values[entry.first] = CStdStr(1, static_cast<char>(v.i & 0xFF));
        }
    }
}

boost::shared_ptr<CRegistryImpl> CRegistry::getInstance() {
    // Created once, on first use; static initialisation is thread-safe.
    static const boost::shared_ptr<CRegistryImpl> instance(new CRegistryImpl());
    return instance;
}
