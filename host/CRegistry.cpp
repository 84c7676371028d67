#include "host/CRegistry.h"

#include <cstdio>

#include "host/Preferences.h"

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
    Preferences::Value v;
    if (!Preferences::Get(createKey(keyPath), valueName, v) || v.type != Preferences::Value::Int) return false;
    value = v.i;
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
