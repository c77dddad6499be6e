#pragma once

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <new>
#include <typeinfo>

/// A holder of the one shared `T`: the first holder creates it, the last one deletes it.
///
/// The mutex guards the count and the pointer only, never the instance's own data. `T`'s
/// constructor and destructor run under it: neither may wait for a thread that acquires
/// `Singleton<T>`. Each `T` offers `static bool GetVerbose()`, which switches the trace lines.
/// Holders may be made and dropped on any thread.
template <typename T>
class Singleton {
  public:
    Singleton() {
        trace("lock mutex");
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_RefCount == 0) create(lock);
        ++m_RefCount;
        if (T::GetVerbose()) std::cout << name() << ": Constr ref=" << m_RefCount << std::endl;
        trace("unlock mutex");
    }

    ~Singleton() {
        trace("lock mutex");
        const std::lock_guard<std::mutex> lock(m_Mutex);
        --m_RefCount;
        if (T::GetVerbose()) std::cout << name() << ": Destr ref=" << m_RefCount << std::endl;
        if (m_RefCount == 0) {
            trace("Delete object");
            delete m_pImpl;
            m_pImpl = nullptr;
        }
        trace("unlock mutex");
    }

    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

    /// The shared instance; valid as long as any holder lives.
    T* operator->() const { return m_pImpl; }
    T& operator*() const { return *m_pImpl; }
    T* get() const { return m_pImpl; }

    static inline std::mutex m_Mutex;    ///< guards m_RefCount and m_pImpl
    static inline int m_RefCount = 0;    ///< number of live holders
    static inline T* m_pImpl = nullptr;  ///< null while there is no holder

  private:
    static const char* name() { return typeid(T).name(); }

    static void trace(const char* text) {
        if (T::GetVerbose()) std::cout << name() << ": " << text << std::endl;
    }

    static void create(std::unique_lock<std::mutex>& lock) {
        m_pImpl = new (std::nothrow) T;
        if (m_pImpl == nullptr) {
            std::cerr << name() << ": "
                      << "Cannot allocate: abort" << std::endl;
            trace("unlock mutex");
            lock.unlock();
            std::abort();
        }
        trace("Created object");
    }
};
