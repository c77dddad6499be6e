// intake DATABASE: the gateway of the product with consent, storing into a database that is never
// pruned nor uploaded, so that intake alone can be measured. Ends with SIGTERM.

#include "Config.h"
#include "GatewayImpl.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "support/DBPeer.h"
#include "support/GatewayImplPeer.h"

#include <limits>

#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const Config config;
    config->parseConfig(
        JsonObject::parse(R"({"kiv_tou": true, "upload_events": {"min-size": 2000000000}})"));
    DB().open(argv[1], true);
    const Singleton<GatewayImpl> gateway;
    DB& store = GatewayImplPeer::database(*gateway);
    constexpr auto never = std::numeric_limits<std::int32_t>::max();
    DBPeer::setMaxDatabaseSize(store, 1 << 30);
    DBPeer::setPruneSizes(store, never, never);
    gateway->Init(argv[1]);
    for (;;) ::pause();
}
