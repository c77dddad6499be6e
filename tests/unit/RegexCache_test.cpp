#include "RegexCache.h"

#include "ClassLog.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/RegexCachePeer.h"
#include "support/TaggedLines.h"

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

class RegexCacheTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        RegexCachePeer::clear();
    }

    static std::regex_constants::error_type codeOf(const std::string& pattern) {
        try {
            RegexCache::matches(pattern, "text");
        } catch (const std::regex_error& error) {
            return error.code();
        }
        ADD_FAILURE() << pattern << " compiled";
        return std::regex_constants::error_type{};
    }
};

/// A pattern must match the whole text, in ECMAScript grammar.
TEST_F(RegexCacheTest, MatchesTheWholeTextOnly) {
    EXPECT_TRUE(RegexCache::matches("ab.*", "abc"));
    EXPECT_FALSE(RegexCache::matches("ab.*", "xabc"));
    EXPECT_FALSE(RegexCache::matches("b", "abc"));
    EXPECT_TRUE(RegexCache::matches("", ""));
    EXPECT_FALSE(RegexCache::matches("", "a"));
}

/// A pattern must match the whole text, in ECMAScript grammar.
TEST_F(RegexCacheTest, ReadsTheEcmaScriptGrammar) {
    EXPECT_TRUE(RegexCache::matches("\\d{3}", "042"));
    EXPECT_TRUE(RegexCache::matches("(?:a|b)+", "abba"));
    EXPECT_TRUE(RegexCache::matches("(?=ab)a.*", "abc"));
    EXPECT_FALSE(RegexCache::matches("(?!ab)a.*", "abc"));
    EXPECT_FALSE(RegexCache::matches("a.b", "a\nb"));
}

/// A pattern that does not compile throws its error.
TEST_F(RegexCacheTest, ThrowsTheErrorOfAPatternThatDoesNotCompile) {
    EXPECT_EQ(codeOf("("), std::regex_constants::error_paren);
    EXPECT_EQ(codeOf("[a"), std::regex_constants::error_brack);
    EXPECT_EQ(codeOf("a{3,1}"), std::regex_constants::error_badbrace);
    EXPECT_EQ(codeOf("(a)\\2"), std::regex_constants::error_backref);
    EXPECT_EQ(codeOf("(a)\\1("), std::regex_constants::error_paren);
    EXPECT_EQ(RegexCachePeer::size(), 0U);
}

/// Hostile patterns and long texts end neither the time nor the stack.
TEST_F(RegexCacheTest, TakesNestedRepeatsInBoundedTime) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RegexCache::matches("(a+)+b", std::string(2000, 'a')));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

/// Hostile patterns and long texts end neither the time nor the stack.
TEST_F(RegexCacheTest, TakesLongTextsOnAThreadsStack) {
    bool matched = false;
    std::thread([&] { matched = RegexCache::matches(".*", std::string(100000, 'x')); }).join();
    EXPECT_TRUE(matched);
}

/// Back-references work on texts of up to 512 characters; longer ones do not match and get a
/// line.
TEST_F(RegexCacheTest, FollowsBackReferencesInShortTexts) {
    OutputCapture capture;
    EXPECT_TRUE(RegexCache::matches("(a|b)x\\1", "axa"));
    EXPECT_FALSE(RegexCache::matches("(a|b)x\\1", "axb"));
    EXPECT_TRUE(RegexCache::matches("(a)\\1*", std::string(512, 'a')));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// Back-references work on texts of up to 512 characters; longer ones do not match and get a
/// line.
TEST_F(RegexCacheTest, RefusesTextsAbove512CharactersForBackReferences) {
    OutputCapture capture;
    EXPECT_FALSE(RegexCache::matches("(a)\\1*", std::string(513, 'a')));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: Text of 513 characters is too long (limit 512) for a pattern with "
              "back-references: (a)\\x5C1*\n");
}

/// Patterns above 1024 characters do not match and get a line.
TEST_F(RegexCacheTest, RefusesPatternsAbove1024Characters) {
    OutputCapture capture;
    EXPECT_TRUE(RegexCache::matches(std::string(1024, 'a'), std::string(1024, 'a')));
    EXPECT_FALSE(RegexCache::matches(std::string(1025, 'a'), std::string(1025, 'a')));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: Pattern of 1025 characters is too long (limit 1024): " +
                  std::string(256, 'a') + "... (1025 bytes)\n");
    EXPECT_FALSE(RegexCachePeer::holds(std::string(1025, 'a')));
}

/// A back-reference and nested quantifiers in one pattern do not match and get a line: their time
/// doubles with each character.
TEST_F(RegexCacheTest, RefusesNestedQuantifiersWithABackReference) {
    const std::string line =
        "JsonFilterRule: Pattern has a back-reference and nested quantifiers: ";
    const auto start = std::chrono::steady_clock::now();
    OutputCapture capture;
    EXPECT_FALSE(RegexCache::matches("(a+)+\\1b", std::string(500, 'a')));
    EXPECT_FALSE(RegexCache::matches("(x)(?:a?b)*\\1", "xx"));
    EXPECT_TRUE(RegexCache::matches("(a+)\\1b+", "aaaab")) << "none stands within another";
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), line + "(a+)+\\x5C1b\n" + line + "(x)(?:a?b)*\\x5C1\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(RegexCachePeer::holds("(a+)+\\1b"));
}

/// Matching that has to try too many ways is given up, with a line, within a second.
TEST_F(RegexCacheTest, GivesUpWhereABackReferenceHasTooManyWays) {
    const std::string subject(512, 'a');
    std::string optional = "(a)";
    for (int i = 0; i < 30; ++i) optional += "(a?)";
    for (const std::string& pattern :
         {std::string("(a)(a*)(a*)(a*)\\1b"), std::string("(a|a)*\\1b"),
          std::string("(a*?)(a*?)(a*?)(a*?)\\1b"), std::string("(a)(?:a|aa)*?\\1b"),
          std::string("(|)(?:|){100}\\1b"), optional + "\\1b"}) {
        const auto start = std::chrono::steady_clock::now();
        OutputCapture capture;
        EXPECT_FALSE(RegexCache::matches(pattern, subject));
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(),
                  "JsonFilterRule: Matching given up after 1000000 steps: " +
                      ClassLog::foreign(pattern) + "\n");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
}

/// The same patterns match where there are few ways.
TEST_F(RegexCacheTest, MatchesWithABackReferenceWhereTheWaysAreFew) {
    OutputCapture capture;
    EXPECT_TRUE(RegexCache::matches("(a)(a*)(a*)(a*)\\1b", std::string(500, 'a') + "b"));
    EXPECT_FALSE(RegexCache::matches("(a)(a*)(a*)(a*)\\1b", std::string(50, 'a')));
    EXPECT_TRUE(RegexCache::matches("(a|b)*c\\1", std::string(500, 'b') + "cb"));
    EXPECT_FALSE(RegexCache::matches("(a)(a*)\\1b", std::string(512, 'a')));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// Matching with a back-reference that would take a thread's whole stack is given up with a line.
TEST_F(RegexCacheTest, GivesUpBeforeABackReferenceTakesTheWholeStack) {
    const std::string pattern = std::string(490, '(') + "a|b" + std::string(490, ')') + "*c\\1";
    OutputCapture capture;
    std::thread([&] { EXPECT_FALSE(RegexCache::matches(pattern, std::string(512, 'a'))); }).join();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: Matching given up after 4 MiB of stack: " +
                  ClassLog::foreign(pattern) + "\n");
}

/// Counted repetitions that multiply to more than 2000 do not match and get a line.
TEST_F(RegexCacheTest, RefusesRepetitionsThatMultiplyToMoreThan2000) {
    const std::string line = "JsonFilterRule: Pattern repeats a part ";
    OutputCapture capture;
    EXPECT_TRUE(RegexCache::matches("(?:a{20}){100}", std::string(2000, 'a')));
    EXPECT_FALSE(RegexCache::matches("(?:a{3}){667}", std::string(2001, 'a')));
    EXPECT_FALSE(RegexCache::matches("((a?){100}){160}", std::string(8000, 'a')));
    EXPECT_FALSE(RegexCache::matches("a{4000000000}", "a"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              line + "2001 times (limit 2000): (?:a{3}){667}\n" + line +
                  "16000 times (limit 2000): ((a?){100}){160}\n" + line +
                  "1000000 times (limit 2000): a{4000000000}\n");
}

/// Many threads may match at once; every line carries the diagnostic prefix.
TEST_F(RegexCacheTest, ItsLinesCarryTheDiagnosticPrefix) {
    OutputCapture capture;
    RegexCache::matches("(a)\\1*", std::string(513, 'a'));
    RegexCache::matches(std::string(1025, 'a'), "a");
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.err(), "JsonFilterRule: "),
              "JsonFilterRule: Text of 513 characters is too long (limit 512) for a pattern with "
              "back-references: (a)\\x5C1*\n"
              "JsonFilterRule: Pattern of 1025 characters is too long (limit 1024): " +
                  std::string(256, 'a') + "... (1025 bytes)\n");
}

/// Compiled patterns are kept by their text; a full cache drops the one unused for longest.
TEST_F(RegexCacheTest, KeepsCompiledPatterns) {
    RegexCache::matches("kept", "x");
    RegexCache::matches("kept", "y");
    EXPECT_TRUE(RegexCachePeer::holds("kept"));
    EXPECT_EQ(RegexCachePeer::size(), 1U);
}

/// Compiled patterns are kept by their text; a full cache drops the one unused for longest.
TEST_F(RegexCacheTest, DropsThePatternUnusedForLongestWhenFull) {
    for (std::size_t i = 0; i < RegexCachePeer::maxPatterns; ++i) {
        RegexCache::matches("p" + std::to_string(i), "x");
    }
    RegexCache::matches("p0", "x");
    RegexCache::matches("another", "x");
    EXPECT_EQ(RegexCachePeer::size(), RegexCachePeer::maxPatterns);
    EXPECT_TRUE(RegexCachePeer::holds("p0"));
    EXPECT_FALSE(RegexCachePeer::holds("p1"));
    EXPECT_TRUE(RegexCachePeer::holds("another"));
}

/// The cache holds no more than its size, counted with all repetitions written out: the patterns
/// unused for longest go. What is larger alone is not kept, and matches all the same.
TEST_F(RegexCacheTest, KeepsNoMoreThanItsSize) {
    const auto pattern = [](int i) { return "p" + std::to_string(i) + "x{1990}"; };
    const int most = static_cast<int>(RegexCachePeer::maxSize / 2000);
    for (int i = 0; i <= most + 2; ++i) RegexCache::matches(pattern(i), "x");
    EXPECT_FALSE(RegexCachePeer::holds(pattern(0)));
    EXPECT_TRUE(RegexCachePeer::holds(pattern(most + 2)));
    EXPECT_LE(RegexCachePeer::size(), RegexCachePeer::maxSize / 1990);
    EXPECT_GE(RegexCachePeer::size(), RegexCachePeer::maxSize / 2000 - 1);
    std::string large;
    for (int i = 0; i < 20; ++i) large += "a{2000}";
    EXPECT_TRUE(RegexCache::matches(large, std::string(40000, 'a')));
    EXPECT_FALSE(RegexCache::matches(large, "a"));
    EXPECT_FALSE(RegexCachePeer::holds(large));
    EXPECT_TRUE(RegexCachePeer::holds(pattern(most + 2)));
}

/// Many threads may match at once; every line carries the diagnostic prefix.
TEST_F(RegexCacheTest, ServesManyThreads) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&wrong] {
            for (int i = 0; i < 200; ++i) {
                const std::string number = std::to_string(i % 100);
                if (!RegexCache::matches("n" + number + "+", "n" + number)) ++wrong;
                if (RegexCache::matches("n" + number + "+", "m" + number)) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(RegexCachePeer::size(), RegexCachePeer::maxPatterns);
}

}  // namespace
