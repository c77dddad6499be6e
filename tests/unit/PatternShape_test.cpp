#include "PatternShape.h"

#include <string>

#include <gtest/gtest.h>

namespace {

bool refers(const std::string& pattern) {
    return PatternShape(pattern).hasBackReference();
}
bool nests(const std::string& pattern) {
    return PatternShape(pattern).nestsQuantifiers();
}
std::size_t repetitions(const std::string& pattern) {
    return PatternShape(pattern).repetitions();
}

/// A backslash and a number from 1 on is a back-reference, but not in a class.
TEST(PatternShapeTest, FindsBackReferences) {
    for (const char* pattern :
         {"(a)\\1", "\\9", "(?:(a)\\1)", "[a](b)\\1", "[[:alpha:]](b)\\1", "[^](a)\\1"})
        EXPECT_TRUE(refers(pattern)) << pattern;
    for (const char* pattern : {"", "a", "\\0", "\\d1", "\\\\1", "[\\1]", "a\\", "[", "\\x31"})
        EXPECT_FALSE(refers(pattern)) << pattern;
}

/// Quantifiers nest where one repeats something that holds another.
TEST(PatternShapeTest, FindsNestedQuantifiers) {
    for (const char* pattern :
         {"(a+)+", "(a*)*", "(a?){2}", "(a{2})?", "(?:a+)*", "((a+))*", "(b(a+)c)*", "(a|b+)*",
          "(a+|b)*", "(a+b)*", "(ba+)+", "a+*", "a+??", "(a+)*", "(?=a+)*", "x(y(z(w)*))+"})
        EXPECT_TRUE(nests(pattern)) << pattern;
    for (const char* pattern :
         {"", "a+", "a+b*", "(a+)(b+)", "(a)+", "(a)+b+", "a+?", "a*?b", "(a+?)b", "a{2}?",
          "([+*]){2}", "(\\+)*", "([[:alpha:]+])*", "(a+)|(b)*", "(?:a)+", "(?!a)b+"})
        EXPECT_FALSE(nests(pattern)) << pattern;
}

/// The size counts the characters with all repetitions written out, also of what follows each
/// other; it ends at a million, on a set of 32 bits too.
TEST(PatternShapeTest, CountsTheCharactersWithAllRepetitionsWrittenOut) {
    const auto size = [](const std::string& pattern) { return PatternShape(pattern).size(); };
    EXPECT_EQ(size(""), 0u);
    EXPECT_EQ(size("abc"), 3u);
    EXPECT_EQ(size("a{1000}"), 1000u + 6);
    EXPECT_EQ(size("a{1000}b{1000}"), 2 * (1000u + 6));
    EXPECT_EQ(size("(ab){10}"), 10 * 4u + 4);
    EXPECT_EQ(size("((a{3}){5}|b)c"), 5u * (3 + 3 + 2) + 3 + 2 + 3);
    EXPECT_EQ(size("[a-z]{2,20}"), 20 * 5u + 6);
    EXPECT_EQ(size("(a{999999}){999999}"), 1000000u);
}

/// Counts multiply along the groups; the larger bound counts; what follows each other does not.
TEST(PatternShapeTest, MultipliesCountsAlongTheGroups) {
    EXPECT_EQ(repetitions(""), 1u);
    EXPECT_EQ(repetitions("a+b*c?"), 1u);
    EXPECT_EQ(repetitions("a{7}"), 7u);
    EXPECT_EQ(repetitions("a{7,}"), 7u);
    EXPECT_EQ(repetitions("a{2,9}"), 9u);
    EXPECT_EQ(repetitions("a{0}"), 1u);
    EXPECT_EQ(repetitions("a{4}b{6}c{5}"), 6u);
    EXPECT_EQ(repetitions("((a?){100}){160}"), 16000u);
    EXPECT_EQ(repetitions("(x{3}y{5}){10}"), 50u);
    EXPECT_EQ(repetitions("((x{3}){2}|y{5}){10}"), 60u);
    EXPECT_EQ(repetitions("(a{5}b)(c{6})d"), 6u);
    EXPECT_EQ(repetitions("a{5}{6}"), 30u);
    EXPECT_EQ(repetitions("[a{5}]{6}"), 6u);
    EXPECT_EQ(repetitions("(?:(?=a{9})b){9}"), 81u);
}

/// A product has an upper end, however large its counts are.
TEST(PatternShapeTest, EndsAtAMillionRepetitions) {
    EXPECT_EQ(repetitions("a{99999999999999999999999999}"), 1000000u);
    EXPECT_EQ(repetitions("((((a{9999}){9999}){9999}){9999}){9999}"), 1000000u);
}

/// A number of a million and above is told anywhere, also in a back-reference and before a mistake:
/// the compiler of patterns overflows on large ones.
TEST(PatternShapeTest, TellsOfHugeNumbersAnywhere) {
    EXPECT_EQ(repetitions("(a)\\66666666666666666666"), 1000000u);
    EXPECT_EQ(repetitions("(a)\\1000000b"), 1000000u);
    EXPECT_EQ(repetitions("a{66666666666666666666"), 1000000u);
    EXPECT_EQ(repetitions("a{1,66666666666666666666x"), 1000000u);
    EXPECT_EQ(repetitions("(a)\\12b{3}"), 3u);
    EXPECT_EQ(repetitions("a66666666666666666666"), 1u);
}

/// Of a pattern with a mistake it tells what stands before it.
TEST(PatternShapeTest, EndsAtAMistake) {
    EXPECT_EQ(repetitions("(a{5}"), 5u);
    EXPECT_EQ(repetitions("((a{5}"), 5u);
    EXPECT_EQ(repetitions("a{5"), 1u);
    EXPECT_EQ(repetitions("a{"), 1u);
    EXPECT_EQ(repetitions("a{x}{7}"), 1u);
    EXPECT_EQ(repetitions("a{3})b{9}"), 3u);
    EXPECT_EQ(repetitions("[a"), 1u);
    EXPECT_EQ(repetitions("[[:a{9}"), 1u);
    EXPECT_EQ(repetitions("(?"), 1u);
    EXPECT_EQ(repetitions("*{9}"), 9u);
    EXPECT_EQ(repetitions(std::string(2000, '(')), 1u);
    EXPECT_EQ(repetitions(std::string(2000, ')')), 1u);
    EXPECT_EQ(repetitions(std::string("a\0b{9}", 6)), 1u);
}

}  // namespace
