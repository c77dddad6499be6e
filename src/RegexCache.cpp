#include "RegexCache.h"

#include "ClassLog.h"
#include "PatternShape.h"

#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <regex>
#include <unordered_map>
#include <utility>

#include <cstddef>
#include <cstdint>

namespace {

const ClassLog s_log("JsonFilterRule: ");  // patterns are those of its rules

constexpr std::size_t kMaxPatternLength = 1024;
constexpr std::size_t kMaxBacktrackedLength = 512;
constexpr std::size_t kMaxRepetitions = 2000;

/// What matching by trying may take: its time can grow without bound with the ways in which a
/// pattern may take a text, and its stack with the groups that each character passes.
class Effort {
  public:
    /// What is thrown where it is too much.
    struct Excess {
        const char* of;
    };

    /// At every look at the text, of which each way that is tried has at least one.
    void spend() {
        if (m_stepsLeft-- == 0) throw Excess{"1000000 steps"};
        if (m_bottom - here() > kMostStack) throw Excess{"4 MiB of stack"};
    }

  private:
    static constexpr std::intptr_t kMostStack = std::intptr_t{4} << 20;

    /// How far the stack has grown, which it does downward.
    static std::intptr_t here() {
        return reinterpret_cast<std::intptr_t>(__builtin_frame_address(0));
    }

    std::size_t m_stepsLeft = 1000000;
    std::intptr_t m_bottom = here();
};

/// A place in a text whose reading counts while its thread has an effort to spend. All matching
/// goes by it: a second kind of place would bring the whole matcher into the program once more. It
/// keeps nothing else, because the matcher copies many.
class CountedPlace {
  public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountedPlace() = default;  ///< of no text
    explicit CountedPlace(const char* place) : m_place(place) {}

    /// Of this thread, from now on; null: reading costs nothing.
    static void limit(Effort* effort) { m_effort = effort; }

    reference operator*() const {
        if (m_effort != nullptr) m_effort->spend();
        return *m_place;
    }
    CountedPlace& operator++() { return ++m_place, *this; }
    CountedPlace& operator--() { return --m_place, *this; }
    CountedPlace operator++(int) { return CountedPlace(m_place++); }
    CountedPlace operator--(int) { return CountedPlace(m_place--); }
    bool operator==(const CountedPlace& other) const {
        if (m_effort != nullptr) m_effort->spend();
        return m_place == other.m_place;
    }
    bool operator!=(const CountedPlace& other) const { return !(*this == other); }

  private:
    static thread_local Effort* m_effort;

    const char* m_place = nullptr;
};

thread_local Effort* CountedPlace::m_effort = nullptr;

struct Compiled {
    std::regex regex;
    bool backtracks;  ///< time and stack grow with the subject: only short ones are tried
};

using SharedPattern = std::shared_ptr<const Compiled>;

/// Patterns by their text, the latest used first.
class PatternStore {
  public:
    PatternStore(std::size_t mostPatterns, std::size_t mostSize)
        : m_mostPatterns(mostPatterns), m_mostSize(mostSize) {}

    SharedPattern find(const std::string& text) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto known = m_places.find(text);
        if (known == m_places.end()) return nullptr;
        m_entries.splice(m_entries.begin(), m_entries, known->second);
        return known->second->pattern;
    }

    void keep(const std::string& text, SharedPattern pattern) {
        const std::size_t size = PatternShape(text).size();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (size > m_mostSize || m_places.count(text) != 0) return;
        m_entries.push_front({text, std::move(pattern), size});
        m_places[text] = m_entries.begin();
        m_size += size;
        while (m_entries.size() > m_mostPatterns || m_size > m_mostSize) dropLast();
    }

    bool holds(const std::string& text) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_places.count(text) != 0;
    }

    std::size_t size() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries.size();
    }

    void clear() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_places.clear();
        m_entries.clear();
        m_size = 0;
    }

  private:
    struct Entry {
        std::string text;
        SharedPattern pattern;
        std::size_t size;
    };
    using Entries = std::list<Entry>;

    /// With m_mutex held.
    void dropLast() {
        m_size -= m_entries.back().size;
        m_places.erase(m_entries.back().text);
        m_entries.pop_back();
    }

    const std::size_t m_mostPatterns;
    const std::size_t m_mostSize;
    std::mutex m_mutex;      ///< guards the three members below
    std::size_t m_size = 0;  ///< of all entries
    Entries m_entries;
    std::unordered_map<std::string, Entries::iterator> m_places;
};

PatternStore& store(std::size_t mostPatterns, std::size_t mostSize) {
    static PatternStore patterns(mostPatterns, mostSize);
    return patterns;
}

SharedPattern compile(const std::string& pattern) {
    using std::regex_constants::ECMAScript;
#ifdef __GLIBCXX__
    try {
        return std::make_shared<const Compiled>(
            Compiled{std::regex(pattern, ECMAScript | std::regex_constants::__polynomial), false});
    } catch (const std::regex_error& error) {
        // This is how the polynomial executor refuses a back-reference.
        if (error.code() != std::regex_constants::error_complexity) throw;
    }
#endif
    return std::make_shared<const Compiled>(Compiled{std::regex(pattern, ECMAScript), true});
}

/// Has reading count on this thread while it lives; not where there is no effort.
class Limit {
  public:
    explicit Limit(Effort* effort) { CountedPlace::limit(effort); }
    ~Limit() { CountedPlace::limit(nullptr); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
};

/// A line, and false, where an expression that backtracks takes too much.
bool matchesWithin(const Compiled& expression, const std::string& pattern,
                   const std::string& text) {
    Effort effort;
    const Limit limit(expression.backtracks ? &effort : nullptr);
    try {
        const CountedPlace begin(text.data());
        const CountedPlace end(text.data() + text.size());
        return std::regex_match(begin, end, expression.regex);
    } catch (const Effort::Excess& excess) {
        s_log.error("Matching given up after ", excess.of, ": ", ClassLog::foreign(pattern));
        return false;
    }
}

/// Whether matching ends in a time that one can wait for; a line where it may not.
bool isBearable(const std::string& pattern) {
    const PatternShape shape(pattern);
    if (shape.repetitions() > kMaxRepetitions) {
        s_log.error("Pattern repeats a part ", shape.repetitions(), " times (limit ",
                    kMaxRepetitions, "): ", ClassLog::foreign(pattern));
        return false;
    }
    if (shape.hasBackReference() && shape.nestsQuantifiers()) {
        s_log.error("Pattern has a back-reference and nested quantifiers: ",
                    ClassLog::foreign(pattern));
        return false;
    }
    return true;
}

/// @return null for a pattern that is refused
SharedPattern compiled(const std::string& pattern, PatternStore& patterns) {
    SharedPattern known = patterns.find(pattern);
    if (known != nullptr || !isBearable(pattern)) return known;
    known = compile(pattern);
    patterns.keep(pattern, known);
    return known;
}

}  // namespace

bool RegexCache::matches(const std::string& pattern, const std::string& text) {
    if (pattern.size() > kMaxPatternLength) {
        s_log.error("Pattern of ", pattern.size(), " characters is too long (limit ",
                    kMaxPatternLength, "): ", ClassLog::foreign(pattern));
        return false;
    }
    const SharedPattern expression = compiled(pattern, store(kMaxPatterns, kMaxSize));
    if (expression == nullptr) return false;
    if (expression->backtracks && text.size() > kMaxBacktrackedLength) {
        s_log.error("Text of ", text.size(), " characters is too long (limit ",
                    kMaxBacktrackedLength,
                    ") for a pattern with back-references: ", ClassLog::foreign(pattern));
        return false;
    }
    return matchesWithin(*expression, pattern, text);
}

bool RegexCache::holds(const std::string& pattern) {
    return store(kMaxPatterns, kMaxSize).holds(pattern);
}

std::size_t RegexCache::size() {
    return store(kMaxPatterns, kMaxSize).size();
}

void RegexCache::clear() {
    store(kMaxPatterns, kMaxSize).clear();
}
