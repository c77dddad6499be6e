#include "support/NetworkHooks.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace {

/// What the living object asked for.
struct Wishes {
    bool active = false;
    bool failEasyInit = false;
    bool failCommands = false;
    std::set<CURLoption> refused;
    std::map<CURLoption, std::function<void()>> actions;
    std::map<int, int> ports;
    std::vector<NetworkHooks::Option> options;
};

std::mutex wishesLock;  // guards what `wishes` gives
Wishes& wishes() {
    static Wishes all;
    return all;
}

template <typename Function>
Function original(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

bool takesText(CURLoption option) {
    return option == CURLOPT_URL || option == CURLOPT_CAINFO || option == CURLOPT_CAPATH ||
           option == CURLOPT_PROTOCOLS_STR;
}

bool takesList(CURLoption option) {
    return option == CURLOPT_HTTPHEADER || option == CURLOPT_RESOLVE;
}

NetworkHooks::Option recordOf(CURLoption option, long number, void* pointer) {
    NetworkHooks::Option record{option, number, pointer == nullptr, "", {}};
    if (takesText(option) && pointer != nullptr) record.text = static_cast<const char*>(pointer);
    if (!takesList(option)) return record;
    for (auto* entry = static_cast<curl_slist*>(pointer); entry != nullptr; entry = entry->next) {
        record.texts.emplace_back(entry->data);
    }
    return record;
}

/// Notes the option; false when it is to be refused.
bool note(CURLoption option, long number, void* pointer) {
    std::unique_lock<std::mutex> lock(wishesLock);
    if (!wishes().active) return true;
    wishes().options.push_back(recordOf(option, number, pointer));
    const bool taken = wishes().refused.count(option) == 0;
    const auto found = wishes().actions.find(option);
    const auto action = found != wishes().actions.end() ? found->second : nullptr;
    lock.unlock();  // an action may look at the options
    if (action) action();
    return taken;
}

}  // namespace

NetworkHooks::NetworkHooks() {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes() = Wishes();
    wishes().active = true;
}

NetworkHooks::~NetworkHooks() {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes() = Wishes();
}

void NetworkHooks::failEasyInit() {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes().failEasyInit = true;
}

void NetworkHooks::failCommands() {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes().failCommands = true;
}

void NetworkHooks::refuse(CURLoption option) {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes().refused.insert(option);
}

void NetworkHooks::whenSet(CURLoption option, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes().actions[option] = std::move(action);
}

void NetworkHooks::redirectPort(int from, int to) {
    const std::lock_guard<std::mutex> lock(wishesLock);
    wishes().ports[from] = to;
}

std::vector<NetworkHooks::Option> NetworkHooks::options() const {
    const std::lock_guard<std::mutex> lock(wishesLock);
    return wishes().options;
}

NetworkHooks::Option NetworkHooks::option(CURLoption option) const {
    const std::vector<Option> all = options();
    const auto last = std::find_if(all.rbegin(), all.rend(),
                                   [option](const Option& set) { return set.option == option; });
    if (last != all.rend()) return *last;
    ADD_FAILURE() << "option " << option << " was not set";
    return {option, 0, true, "", {}};
}

bool NetworkHooks::wasSet(CURLoption option) const {
    const std::vector<Option> all = options();
    return std::any_of(all.begin(), all.end(),
                       [option](const Option& set) { return set.option == option; });
}

// ---- What the linker finds before the libraries' own ---------------------------------------

extern "C" {

CURL* curl_easy_init(void) {
    {
        const std::lock_guard<std::mutex> lock(wishesLock);
        if (wishes().failEasyInit) return nullptr;
    }
    static const auto init = original<CURL* (*)()>("curl_easy_init");
    return init();
}

int posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* files,
                const posix_spawnattr_t* attributes, char* const words[],
                char* const environment[]) {
    {
        const std::lock_guard<std::mutex> lock(wishesLock);
        if (wishes().failCommands) {
            return EAGAIN;
        }
    }
    static const auto start = original<decltype(&posix_spawn)>("posix_spawn");
    return start(process, path, files, attributes, words, environment);
}

#undef curl_easy_setopt
#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs"  // the enumeration is as wide as its promotion
#endif
CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    static const auto set = original<CURLcode (*)(CURL*, CURLoption, ...)>("curl_easy_setopt");
    std::va_list arguments;
    va_start(arguments, option);
    const bool isLong = option < CURLOPTTYPE_OBJECTPOINT;
    const bool isOffset = option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB;
    const curl_off_t offset = isOffset ? va_arg(arguments, curl_off_t) : 0;
    const long number = isLong ? va_arg(arguments, long) : 0;
    void* pointer = isLong || isOffset ? nullptr : va_arg(arguments, void*);
    va_end(arguments);
    if (!note(option, number, pointer)) return CURLE_UNKNOWN_OPTION;
    if (isLong) return set(handle, option, number);
    if (isOffset) return set(handle, option, offset);
    return set(handle, option, pointer);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto connectTo = original<int (*)(int, const sockaddr*, socklen_t)>("connect");
    if (address == nullptr || address->sa_family != AF_INET || length < sizeof(sockaddr_in)) {
        return connectTo(fd, address, length);
    }
    sockaddr_in target;
    std::memcpy(&target, address, sizeof target);
    if ((ntohl(target.sin_addr.s_addr) >> 24) == IN_LOOPBACKNET) {
        const std::lock_guard<std::mutex> lock(wishesLock);
        const auto port = wishes().ports.find(ntohs(target.sin_port));
        if (port != wishes().ports.end()) {
            target.sin_port = htons(static_cast<std::uint16_t>(port->second));
        }
    }
    return connectTo(fd, reinterpret_cast<const sockaddr*>(&target), sizeof target);
}

}  // extern "C"
