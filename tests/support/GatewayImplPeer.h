#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

#include "GatewayImpl.h"
#include "support/WaitingEventsPeer.h"

/// The gateway's queue name, threads and class-wide state.
struct GatewayImplPeer {
    static constexpr const char* productQueue = "/kiv_queue";

    /// The message queue of the gateways made from now on.
    static void setQueueName(std::string name) { GatewayImpl::m_queueName = std::move(name); }
    static const std::string& queueName() { return GatewayImpl::m_queueName; }

    static DB& database(GatewayImpl& gateway) { return *gateway.m_db; }

    /// Handles a message as the receiving thread does.
    static void handleReceived(GatewayImpl& gateway, const std::string& message) {
        gateway.handle(message, GatewayImpl::Handover::MaySetAside);
    }

    /// One look of the storing thread at the queue. @return how many events it took
    static std::size_t storeWaiting(GatewayImpl& gateway) { return gateway.storeWaitingEvents(); }

    /// As the receiving thread asks before each message; does not wait for a batch.
    static bool isAnySetAside(GatewayImpl& gateway) {
        return !gateway.handOver(GatewayImpl::Handover::MaySetAside);
    }

    /// Stored events that are not freed yet.
    static std::size_t storedInMemory(const GatewayImpl& gateway) {
        return WaitingEventsPeer::storedInMemory(gateway.m_waiting);
    }

    /// Before the receiving thread of the gateways made from now on is started again.
    static void setFirstReceiverRest(std::chrono::milliseconds rest) {
        GatewayImpl::m_firstReceiverRest = rest;
    }
    static std::chrono::milliseconds firstReceiverRest() {
        return GatewayImpl::m_firstReceiverRest;
    }
    /// Before the receiving thread is started again, should it end now.
    static std::chrono::milliseconds receiverRest(const GatewayImpl& gateway) {
        return gateway.m_receiverRest;
    }

    /// Waits for the receiving thread to end by itself. @return its exit value
    static int joinReceiver(GatewayImpl& gateway) { return gateway.m_receiver.join(); }

    static bool isReceiverStarted(const GatewayImpl& gateway) {
        return gateway.m_receiver.isStarted();
    }
    static bool isStorerStarted(const GatewayImpl& gateway) { return gateway.m_storer.isStarted(); }

    /// As before the first event.
    static void forgetEvents() {
        {
            const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
            GatewayImpl::m_Queue.clear();
        }
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_latestMutex);
        GatewayImpl::m_latestEvent.reset();
    }
};
