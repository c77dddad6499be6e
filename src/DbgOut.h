#pragma once

#include <ostream>
#include <string>

/// A stream that begins each diagnostic line with the prefix "[<ms>](<pid>,<tid>) ".
///
/// The first insertion writes the prefix and its text and hands on the bound `std::ostream`, so
/// that one chained statement makes one line with one prefix. It buffers and locks nothing: lines
/// of different threads may interleave, and the thread id in the prefix tells them apart.
/// The bound stream must outlive the object.
class DbgOut {
  public:
    /// Constant initialisation: globals are ready before any static initialiser runs.
    explicit constexpr DbgOut(std::ostream& out) : m_out(out) {}

    /// Writes the prefix: monotonic milliseconds, process id, kernel thread id.
    void PrintPrefix();

    friend std::ostream& operator<<(DbgOut& out, const char* text);
    friend std::ostream& operator<<(DbgOut& out, const std::string& text);

  private:
    std::ostream& m_out;
};

/// Writes the prefix, then `text`; returns the bound stream.
std::ostream& operator<<(DbgOut& out, const char* text);
std::ostream& operator<<(DbgOut& out, const std::string& text);

/// Informational and verbose lines, on standard output. Ready before `main`.
extern DbgOut coutdbg;
/// Errors and warnings, on standard error. Ready before `main`.
extern DbgOut cerrdbg;
