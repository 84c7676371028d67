// Scope guards for the runtime's owned values: CLocalVariant is a variant that
// is initialised on construction and cleared (string, array and all nested
// elements freed) when the scope ends, also when an exception passes;
// CLocalBstr frees its runtime string likewise. Neither can be copied; take a
// value out with release() to keep it beyond the scope.
#pragma once

#include "value/Variant.h"

class CLocalVariant {
public:
    CLocalVariant() { VariantInit(&m_v); }
    ~CLocalVariant() { VariantClear(&m_v); }
    CLocalVariant(const CLocalVariant&) = delete;
    CLocalVariant& operator=(const CLocalVariant&) = delete;

    tagVARIANT& get() { return m_v; }
    const tagVARIANT& get() const { return m_v; }
    tagVARIANT* ptr() { return &m_v; }
    VARTYPE vt() const { return m_v.vt; }
    // Hands the value to the caller and leaves this variant empty.
    tagVARIANT release() {
        tagVARIANT out = m_v;
        VariantInit(&m_v);
        return out;
    }

private:
    tagVARIANT m_v;
};

class CLocalBstr {
public:
    explicit CLocalBstr(BSTR s = nullptr) : m_s(s) {}
    ~CLocalBstr() { SysFreeString(m_s); }
    CLocalBstr(const CLocalBstr&) = delete;
    CLocalBstr& operator=(const CLocalBstr&) = delete;

    BSTR get() const { return m_s; }
    BSTR* out() { return &m_s; }  // for runtime calls that write a string

private:
    BSTR m_s;
};
