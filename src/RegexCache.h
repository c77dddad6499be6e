#pragma once

#include <cstddef>
#include <string>

/// Compiled regular expressions (ECMAScript grammar), kept by their text.
///
/// Compiled with libstdc++'s polynomial executor where it can take the pattern: the default one
/// overflows the stack on long subjects and takes exponential time on nested repeats. Bounded, in
/// number and in memory: at most 64 patterns, and about 5 MB. A pattern that would take more than
/// that alone (the largest that compiles takes 30 MB) is not kept and compiled anew each time;
/// guarded by a mutex of its own; usable from any thread.
class RegexCache {
  public:
    /// Whether `text` as a whole matches `pattern`. A pattern longer than 1024 characters, or a
    /// subject longer than 512 for one with back-references, gives false and an error line; so does
    /// a pattern that could take too long: with counted repetitions that multiply to more than
    /// 2000, or with a back-reference and a quantifier within a quantified group. Matching with
    /// back-references is given up, with a line, after 1 000 000 steps (at most a second) and at
    /// 4 MiB of stack, half of what a thread has.
    /// @throws std::regex_error when the pattern does not compile or matching gives up
    static bool matches(const std::string& pattern, const std::string& text);

  private:
    friend struct RegexCachePeer;

    static constexpr std::size_t kMaxPatterns = 64;  ///< how many are kept
    static constexpr std::size_t kMaxSize = 32768;   ///< of all together, as `PatternShape` counts

    static bool holds(const std::string& pattern);
    static std::size_t size();
    static void clear();
};
