/* libkivevent for C++17: owners of the handles of kivevent.h, and exceptions in the place of codes.
 *
 * What fails throws kivevent::Error, which has the code and says in words what was wrong; only the
 * `try...` functions give codes instead and throw nothing. Threads, fork and signals: kivevent.h.
 */
#ifndef KIVEVENT_HPP
#define KIVEVENT_HPP

#include "kivevent.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kivevent {

/// Why a call failed: `what()` in words, `code()` for the program.
class Error : public std::runtime_error {
  public:
    /// Of the last call of this thread.
    explicit Error(kivevent_code code) : std::runtime_error(kivevent_detail()), m_code(code) {}

    kivevent_code code() const noexcept { return m_code; }

    /// Throws unless the code is KIVEVENT_OK.
    static void check(kivevent_code code) {
        if (code != KIVEVENT_OK) throw Error(code);
    }

  private:
    kivevent_code m_code;
};

using std::chrono::milliseconds;

/// As the C functions take it; what is longer than they can count, about 24 days, is cut to that.
inline int toTimeout(milliseconds time) noexcept {
    constexpr milliseconds longest{std::numeric_limits<int>::max()};
    if (time < milliseconds::zero()) return -1;
    return static_cast<int>((time < longest ? time : longest).count());
}

/// Learns that one event was handled. Its name is in the system as long as it lives.
class Receipt {
  public:
    Receipt() {
        kivevent_receipt* made = nullptr;
        Error::check(kivevent_receipt_open(&made));
        m_receipt.reset(made);
    }

    /// Whether the event was handled within `time`; true once.
    bool wait(milliseconds time) {
        const kivevent_code code = kivevent_receipt_wait(m_receipt.get(), toTimeout(time));
        if (code == KIVEVENT_NOT_HANDLED) return false;
        Error::check(code);
        return true;
    }

    const kivevent_receipt* get() const noexcept { return m_receipt.get(); }

  private:
    struct Deleter {
        void operator()(kivevent_receipt* receipt) const { kivevent_receipt_close(receipt); }
    };
    std::unique_ptr<kivevent_receipt, Deleter> m_receipt;
};

/// The text of an event of type, keys and values.
class Event {
  public:
    explicit Event(const std::string& type) {
        kivevent_builder* made = nullptr;
        Error::check(kivevent_builder_open(type.c_str(), &made));
        m_builder.reset(made);
    }

    Event& add(const std::string& key, const std::string& value) {
        return checked(kivevent_add_text(m_builder.get(), key.c_str(), value.c_str()));
    }
    Event& add(const std::string& key, const char* value) {
        return checked(kivevent_add_text(m_builder.get(), key.c_str(), value));
    }
    Event& add(const std::string& key, bool value) {
        return checked(kivevent_add_boolean(m_builder.get(), key.c_str(), value ? 1 : 0));
    }
    Event& add(const std::string& key, double value) {
        return checked(kivevent_add_number(m_builder.get(), key.c_str(), value));
    }
    Event& add(const std::string& key, std::int64_t value) {
        return checked(kivevent_add_integer(m_builder.get(), key.c_str(), value));
    }
    Event& add(const std::string& key, int value) { return add(key, std::int64_t{value}); }

    /// Any JSON value.
    Event& addJson(const std::string& key, const std::string& json) {
        return checked(kivevent_add_json(m_builder.get(), key.c_str(), json.c_str()));
    }

    /// When it happened, in milliseconds of CLOCK_MONOTONIC.
    Event& kernelTime(std::int64_t ms) {
        return checked(kivevent_set_kernel_time(m_builder.get(), ms));
    }

    std::string text() const {
        const char* const text = kivevent_builder_text(m_builder.get());
        if (text == nullptr) throw Error(KIVEVENT_NO_MEMORY);
        return text;
    }

  private:
    Event& checked(kivevent_code code) {
        Error::check(code);
        return *this;
    }

    struct Deleter {
        void operator()(kivevent_builder* builder) const { kivevent_builder_close(builder); }
    };
    std::unique_ptr<kivevent_builder, Deleter> m_builder;
};

/// A handle on the queue of the daemon, for any number of threads.
class Queue {
  public:
    /// The queue that the environment's KIV_QUEUE names, else KIVEVENT_DEFAULT_QUEUE.
    Queue() : Queue(nullptr) {}
    explicit Queue(const std::string& name) : Queue(name.c_str()) {}

    std::string name() const { return kivevent_queue_name(m_handle.get()); }

    /// How large a message may be, in bytes.
    std::size_t limit() {
        std::size_t bytes = 0;
        Error::check(kivevent_message_limit(m_handle.get(), &bytes));
        return bytes;
    }

    /// Posts an event, and waits up to `time` for room. It returns when the event is in the queue.
    void post(std::string_view json, milliseconds time = milliseconds::zero()) {
        Error::check(tryPost(json, time));
    }
    void post(const Event& event, milliseconds time = milliseconds::zero()) {
        post(event.text(), time);
    }

    /// The same; it returns when the daemon has handled the event.
    void postSync(const std::string& json, milliseconds time) {
        Error::check(kivevent_post_sync(m_handle.get(), json.c_str(), toTimeout(time)));
    }
    void postSync(const Event& event, milliseconds time) { postSync(event.text(), time); }

    /// As `post`, with the code as its result; `receipt`, where there is one, learns that it was
    /// handled.
    kivevent_code tryPost(std::string_view json, milliseconds time = milliseconds::zero(),
                          const Receipt* receipt = nullptr) noexcept {
        return kivevent_post_bytes(m_handle.get(), json.data(), json.size(), toTimeout(time),
                                   receipt == nullptr ? nullptr : receipt->get());
    }

  private:
    explicit Queue(const char* name) {
        kivevent_queue* made = nullptr;
        Error::check(kivevent_open(name, &made));
        m_handle.reset(made);
    }

    struct Deleter {
        void operator()(kivevent_queue* handle) const { kivevent_close(handle); }
    };
    std::unique_ptr<kivevent_queue, Deleter> m_handle;
};

}  // namespace kivevent

#endif  // KIVEVENT_HPP
