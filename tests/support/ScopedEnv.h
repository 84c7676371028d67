// Sets an environment variable (or, given null, unsets it) for one scope and
// puts the old value back when the scope ends.
#pragma once

#include <cstdlib>
#include <string>

namespace kivtest {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        const char* old = getenv(name);
        m_had = old != nullptr;
        if (old) m_old = old;
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    ~ScopedEnv() {
        if (m_had) setenv(m_name.c_str(), m_old.c_str(), 1);
        else unsetenv(m_name.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    bool m_had = false;
    std::string m_old;
};

}  // namespace kivtest
