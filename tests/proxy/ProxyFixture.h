#include "tests/support/ProxyFixture.h"
