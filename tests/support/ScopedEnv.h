// Sets an environment variable (or, given null, unsets it) for one scope.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace kivtest {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        if (const char* old = getenv(name)) m_old = old;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { m_old ? setenv(m_name.c_str(), m_old->c_str(), 1) : unsetenv(m_name.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;  // empty when it was unset
};

}  // namespace kivtest
