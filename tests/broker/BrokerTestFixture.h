// A fixture with a real nats-server, an echo satellite "EchoA" and a client,
// plus helpers to build and compare variants.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "cab/CabSatellite.h"
#include "tests/support/NatsServer.h"
#include "tools/cab-echo/EchoSatellite.h"

class BrokerTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Request on the client; returns the retcode (status) and fills *out.
    int call(const char* target, const char* service, const tagVARIANT& in, tagVARIANT* out, int* rc = nullptr);

    kivtest::NatsServer server{64 * 1024};
    std::unique_ptr<EchoSatellite> echo;
    std::unique_ptr<CabClient> client;
};

// Owns a variant for the length of a scope.
struct Var {
    tagVARIANT v;
    Var() { VariantInit(&v); }
    ~Var() { VariantClear(&v); }
    Var(const Var&) = delete;
    tagVARIANT* operator&() { return &v; }
};

std::string encodingOf(const tagVARIANT& v);
void setI4(tagVARIANT* v, int32_t n);
