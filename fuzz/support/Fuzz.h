#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// What all targets have in common: silence, demands, bounds, and the parts of an input.
namespace fuzz {

/// Ends the run, as a crash does, unless `holds`. The two texts say what was promised, and with
/// what it was not kept.
void demand(bool holds, const char* promise, const std::string& with = "");

/// The daemon's lines go nowhere from now on, unless KIV_FUZZ_LINES is set, but errors are counted.
/// Once, before the first input.
void beSilent();
/// Lines on standard error since the last call.
std::size_t errorLines();

/// An object for the whole run, as the daemon's parts live until its end: nothing destroys it after
/// what it uses.
template <typename T>
T& forever() {
    static T& object = *std::make_unique<T>().release();
    return object;
}

/// Demands at its end that the thread has worked at most so many seconds since its beginning. Not
/// the clock on the wall: the machine may be busy.
class TimeBound {
  public:
    explicit TimeBound(double seconds);
    ~TimeBound();
    TimeBound(const TimeBound&) = delete;
    TimeBound& operator=(const TimeBound&) = delete;

  private:
    double m_end;
};

/// The input's parts, between lines of four dashes: `count` of them, the missing ones empty.
std::vector<std::string> partsOf(const std::uint8_t* data, std::size_t size, std::size_t count);

/// A directory for the run, of the machine's memory where fuzz/run started it; left behind, and
/// removed by fuzz/run.
const std::string& folder();
/// The path of `name` in it.
std::string pathOf(const std::string& name);
/// Writes `text` into the file `name` of the folder. @return its path
std::string writeFile(const std::string& name, const std::string& text);
/// The text of the file `name` of the folder; "" when there is none.
std::string readFile(const std::string& name);
bool hasFile(const std::string& name);
void removeFile(const std::string& name);

}  // namespace fuzz
