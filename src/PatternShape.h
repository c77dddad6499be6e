#pragma once

#include <cstddef>
#include <string>

/// What the text of a regular expression (ECMAScript grammar) tells of the time that matching with
/// it may take.
///
/// It does not say whether the pattern compiles: of one that does not, it tells what stands before
/// the mistake. A short-lived value; reading takes time in proportion to the text.
class PatternShape {
  public:
    explicit PatternShape(const std::string& pattern);

    bool hasBackReference() const { return m_hasBackReference; }
    /// Whether a quantifier repeats something that holds another quantifier, as in "(a+)*".
    bool nestsQuantifiers() const { return m_nestsQuantifiers; }
    /// How often the most repeated part stands in the compiled pattern: the product of the counts
    /// around it, 160 * 100 for "((a?){100}){160}". At most 1 000 000, which stands for any more,
    /// and for any number in the pattern that is as large: libstdc++'s compiler overflows on larger
    /// ones, also in a back-reference and before a mistake.
    std::size_t repetitions() const { return m_repetitions; }
    /// How long the pattern would be with all counted repetitions written out, in characters: 2000
    /// and a few for "a{1000}b{1000}". At most 1 000 000, which stands for any more. What libstdc++
    /// compiles of it takes up to 150 bytes for each.
    std::size_t size() const { return m_size; }

  private:
    class Reader;

    bool m_hasBackReference = false;
    bool m_nestsQuantifiers = false;
    std::size_t m_repetitions = 1;
    std::size_t m_size = 0;
};
