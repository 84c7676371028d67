// The broker's exception family. A CabException carries a message of at most
// 255 characters (longer texts are cut) and an integer code; handlers throw
// CabInvalidParameterException (code 1) for an argument of the wrong type.
// what() is std::exception's own; read the text with getMessage().
#pragma once

#include <cstring>
#include <exception>

class CabException : public std::exception {
public:
    CabException() { m_message[0] = '\0'; }
    CabException(const char* message, int code) : m_code(code) { setMessage(message); }
    const char* getMessage() const { return m_message; }
    int getCode() const { return m_code; }

protected:
    void setMessage(const char* message) {
        if (!message) message = "";
        strncpy(m_message, message, sizeof m_message - 1);
        m_message[sizeof m_message - 1] = '\0';
    }

    char m_message[256];
    int m_code = 0;
};

class CabInvalidParameterException : public CabException {
public:
    explicit CabInvalidParameterException(const char* message) : CabException(message, 1) {}
};
