#pragma once

#include "Credentials.h"
#include "support/ServiceTablesPeer.h"

/// The service values that a test puts in place of the build's, and the check of OpenSSL's lengths.
struct CredentialsPeer : ServiceTablesPeer {
    static void assertHolds(bool condition, const char* assertion, int line) {
        Credentials::assertHolds(condition, assertion, line);
    }
};
