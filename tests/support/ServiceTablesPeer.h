#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ServiceTables.h"

/// Puts service values of a test's own into the `ServiceTables`, scrambled as the build
/// does it. Each setter sets the value of every environment, unless one is named (0 production,
/// 1 development, 2 acceptance).
struct ServiceTablesPeer {
    using Scrambled = std::vector<signed char>;
    static constexpr int everyEnvironment = -1;

    static void setTouUrl(const std::string& url, int environment = everyEnvironment) {
        replace(ServiceTables::m_touUrlTable, url, environment);
    }
    static void setWebTimeUrl(const std::string& url, int environment = everyEnvironment) {
        replace(ServiceTables::m_webTimeUrlTable, url, environment);
    }
    static void setConfigUrl(const std::string& url, int environment = everyEnvironment) {
        replace(ServiceTables::m_configUrlTable, url, environment);
    }
    static void setApiKey(const std::string& key, int environment = everyEnvironment) {
        replace(ServiceTables::m_apiKeyTable, key, environment);
    }
    /// `key` as the bytes of the AES key.
    static void setStorageKey(const std::string& key, int environment = everyEnvironment) {
        replace(ServiceTables::m_storageKeyTable, key, environment);
    }

    /// The build's tables again, production, and the environment variable to be read anew.
    static void putBack() {
        const Saved& saved = original();
        const std::vector<Scrambled*> all = tables();
        for (std::size_t t = 0; t < all.size(); ++t) {
            for (std::size_t i = 0; i < 3; ++i) all[t][i] = saved[t][i];
        }
        ServiceTables::m_KivServerEnv = 0;
        ServiceTables::forgetEnvironment();
    }

    /// The vector that unscrambles to `text` (at most 256 characters): the character of place
    /// `order[s]`, less 40, at s, and that place at the mirrored position of the second half.
    static Scrambled scramble(const std::string& text) {
        std::vector<unsigned char> sums(2 * text.size());
        for (std::size_t s = 0; s < text.size(); ++s) {
            const std::size_t place = text.size() - 1 - s;  // any permutation will do
            sums[s] = static_cast<unsigned char>(static_cast<unsigned char>(text[place]) - 40);
            sums[sums.size() - 1 - s] = static_cast<unsigned char>(place);
        }
        return differences(sums);
    }

    /// The vector whose running sums are `sums`.
    static Scrambled differences(const std::vector<unsigned char>& sums) {
        Scrambled scrambled;
        unsigned char before = 0;
        for (const unsigned char now : sums) {
            scrambled.push_back(static_cast<signed char>(now - before));
            before = now;
        }
        return scrambled;
    }

  private:
    using Saved = std::vector<std::vector<Scrambled>>;

    /// The build's tables, as they were before the first change.
    static const Saved& original() {
        static const Saved saved = [] {
            Saved all;
            for (const auto* table : tables()) all.emplace_back(table, table + 3);
            return all;
        }();
        return saved;
    }

    static std::vector<Scrambled*> tables() {
        return {ServiceTables::m_touUrlTable, ServiceTables::m_webTimeUrlTable,
                ServiceTables::m_configUrlTable, ServiceTables::m_apiKeyTable,
                ServiceTables::m_storageKeyTable};
    }

    static void replace(Scrambled (&table)[3], const std::string& value, int environment) {
        original();
        for (int i = 0; i < 3; ++i) {
            if (environment == everyEnvironment || environment == i) table[i] = scramble(value);
        }
    }
};
