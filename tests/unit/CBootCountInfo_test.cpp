#include "CBootCountInfo.h"

#include "support/OutputCapture.h"
#include "support/TempDir.h"

#include <string>

#include <gtest/gtest.h>

namespace {

/// A file with `text`, loaded over earlier counts of 8 and 9.
struct Loaded {
    explicit Loaded(const std::string& text) {
        const TempDir dir;
        info.LoadFile(dir.write("Earlier", R"({"boot-count": 8, "standby-count": 9})").c_str());
        OutputCapture capture;
        parsed = info.LoadFile(dir.write("BootInfo", text).c_str());
        capture.stop();
        out = capture.out();
        err = capture.err();
    }

    void expect(bool isParsed, std::uint32_t boot, std::uint32_t standby) const {
        EXPECT_EQ(parsed, isParsed);
        EXPECT_EQ(info.getBootCount(), boot);
        EXPECT_EQ(info.getStandbyCount(), standby);
        EXPECT_EQ(out, "");
    }

    CBootCountInfo info;
    bool parsed = false;
    std::string out;
    std::string err;
};

}  // namespace

/// Both counts are 0 until loaded.
TEST(CBootCountInfo, IsZeroUntilLoaded) {
    const CBootCountInfo info;
    EXPECT_EQ(info.getBootCount(), 0U);
    EXPECT_EQ(info.getStandbyCount(), 0U);
}

/// Both counts are read; what is absent or not an integer is 0.
TEST(CBootCountInfo, ReadsBothCounts) {
    const Loaded loaded(R"({"boot-count": 12, "standby-count": 3})");
    loaded.expect(true, 12, 3);
    EXPECT_EQ(loaded.err, "");
}

/// Both counts are read; what is absent or not an integer is 0.
TEST(CBootCountInfo, TakesAnAbsentCountForZero) {
    Loaded(R"({"standby-count": 3})").expect(true, 0, 3);
    Loaded(R"({"boot-count": 12})").expect(true, 12, 0);
    Loaded("{}").expect(true, 0, 0);
}

/// Both counts are read; what is absent or not an integer is 0.
TEST(CBootCountInfo, TakesACountThatIsNoIntegerForZero) {
    for (const char* count : {"\"12\"", "12.0", "null", "true", "[12]", "{}"}) {
        const Loaded loaded(std::string(R"({"boot-count": )") + count + R"(, "standby-count": 3})");
        loaded.expect(true, 0, 3);
        EXPECT_EQ(loaded.err, "") << count;
    }
}

/// A negative count is 0 with "CBootCountInfo : Negative values not allowed. key ... is ...".
///
/// True means that the file parsed, whatever its counts; JSON that is not an object has none.
TEST(CBootCountInfo, RefusesANegativeBootCount) {
    const Loaded loaded(R"({"boot-count": -3, "standby-count": 2})");
    loaded.expect(true, 0, 2);
    EXPECT_EQ(loaded.err, "CBootCountInfo : Negative values not allowed. key boot-count is -3\n");
}

/// A negative count is 0 with "CBootCountInfo : Negative values not allowed. key ... is ...".
TEST(CBootCountInfo, RefusesNegativeCountsInTheirOrder) {
    const Loaded loaded(R"({"standby-count": -1, "boot-count": -9223372036854775808})");
    loaded.expect(true, 0, 0);
    EXPECT_EQ(loaded.err,
              "CBootCountInfo : Negative values not allowed. key boot-count is "
              "-9223372036854775808\n"
              "CBootCountInfo : Negative values not allowed. key standby-count is -1\n");
}

/// Counts are cut to 32 bits.
TEST(CBootCountInfo, CutsACountTo32Bits) {
    Loaded(R"({"boot-count": 4294967295, "standby-count": 4294967298})")
        .expect(true, 4294967295U, 2);
}

/// A file that cannot be read or parsed gives false and both counts 0, without a line.
TEST(CBootCountInfo, SaysFalseForTextThatDoesNotParse) {
    for (const char* text : {"", "nonsense", R"({"boot-count": 12)", "5"}) {
        const Loaded loaded(text);
        loaded.expect(false, 0, 0);
        EXPECT_EQ(loaded.err, "") << text;
    }
}

/// True means that the file parsed, whatever its counts; JSON that is not an object has none.
TEST(CBootCountInfo, FindsNoCountsInJsonThatIsNoObject) {
    Loaded("[12, 3]").expect(true, 0, 0);
}

/// A file that cannot be read or parsed gives false and both counts 0, without a line.
TEST(CBootCountInfo, SaysFalseForAFileThatCannotBeRead) {
    const TempDir dir;
    CBootCountInfo info;
    EXPECT_TRUE(
        info.LoadFile(dir.write("BootInfo", R"({"boot-count": 1, "standby-count": 1})").c_str()));
    EXPECT_FALSE(info.LoadFile(dir.file("missing").c_str()));
    EXPECT_EQ(info.getBootCount(), 0U);
    EXPECT_EQ(info.getStandbyCount(), 0U);
    EXPECT_FALSE(info.LoadFile(dir.path().c_str()));
    EXPECT_FALSE(info.LoadFile(""));
    EXPECT_FALSE(info.LoadFile(nullptr));
}
