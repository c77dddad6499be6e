#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

#include <pthread.h>

#include "GatewayImpl.h"

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

    static bool isAnySetAside(GatewayImpl& gateway) { return gateway.isAnySetAside(); }

    /// Stored events that are not freed yet.
    static std::size_t storedInMemory(const GatewayImpl& gateway) {
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
        return gateway.m_stored.size();
    }

    /// Waits for the receiving thread to end by itself. @return its exit value
    static long joinReceiver(GatewayImpl& gateway) {
        void* result = nullptr;
        ::pthread_join(gateway.m_receiver, &result);
        gateway.m_receiverStarted = false;
        return reinterpret_cast<long>(result);
    }

    static bool isReceiverStarted(const GatewayImpl& gateway) { return gateway.m_receiverStarted; }
    static bool isStorerStarted(const GatewayImpl& gateway) { return gateway.m_storerStarted; }

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
