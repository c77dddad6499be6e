#pragma once

#include <atomic>
#include <ostream>
#include <string>
#include <type_traits>

#include "DbgOut.h"

/// The lines of one class: its tag, and the switch that lets its information lines out.
///
/// One constant for each class that writes lines, at file scope. Silent, `info` costs one look at
/// the switch: nothing is formatted. A piece that is costly to make is given as a function without
/// arguments, which is called only when its line is written. It buffers and locks nothing. Any
/// thread; ready before `main`.
class ClassLog {
  public:
    /// @param tag stands after the prefix of each line; must live as long as the program
    explicit constexpr ClassLog(const char* tag) : m_tag(tag) {}
    /// For a class whose switch is a public member.
    constexpr ClassLog(const char* tag, const bool& verbose)
        : m_tag(tag), m_publicSwitch(&verbose) {}
    ClassLog(const ClassLog&) = delete;
    ClassLog& operator=(const ClassLog&) = delete;

    const char* tag() const { return m_tag; }
    bool isVerbose() const {
        return m_publicSwitch != nullptr ? *m_publicSwitch
                                         : m_verbose.load(std::memory_order_relaxed);
    }
    /// Without effect on a public switch, which its owner sets.
    void setVerbose(bool verbose) { m_verbose = verbose; }

    /// One line on `coutdbg`, when verbose.
    template <typename... Pieces>
    void info(const Pieces&... pieces) const {
        if (isVerbose()) write(coutdbg, pieces...);
    }

    /// One line on `cerrdbg`.
    template <typename... Pieces>
    void error(const Pieces&... pieces) const {
        write(cerrdbg, pieces...);
    }

    /// One line on `coutdbg`, verbose or not.
    template <typename... Pieces>
    void always(const Pieces&... pieces) const {
        write(coutdbg, pieces...);
    }

    /// What `error`, a value of errno, means.
    static std::string errnoText(int error);
    /// Text from outside as it may stand in a line: control characters, backslashes and bytes that
    /// are not UTF-8 become "\xNN"; of a long text the first 256 characters, followed by
    /// "... (<n> bytes)".
    static std::string foreign(const std::string& text);

  private:
    template <typename... Pieces>
    void write(DbgOut& out, const Pieces&... pieces) const {
        std::ostream& line = out << m_tag;
        (put(line, pieces), ...);
        end(line);
    }

    static void put(std::ostream& line, const char* text);
    static void put(std::ostream& line, const std::string& text);
    template <typename Piece>
    static void put(std::ostream& line, const Piece& piece) {
        if constexpr (std::is_invocable_v<const Piece&>) {
            line << piece();
        } else {
            line << piece;
        }
    }
    static void end(std::ostream& line);

    const char* const m_tag;
    const bool* const m_publicSwitch = nullptr;
    std::atomic<bool> m_verbose{false};
};
