#include "support/GatewayImplPeer.h"
#include "support/KivTest.h"

static const KivTest::Reset resetGateway([] {
    GatewayImpl::SetVerbose(false);
    GatewayImplPeer::setQueueName(GatewayImplPeer::productQueue);
    GatewayImplPeer::setFirstReceiverRest(std::chrono::seconds(10));
    GatewayImplPeer::forgetEvents();
});
