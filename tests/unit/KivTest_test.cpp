#include "support/KivTest.h"

#include <gtest/gtest.h>

namespace {

int putBacks = 0;
const KivTest::Reset countPutBacks([] { ++putBacks; });

class KivTestProbe : public KivTest {
  public:
    void run() {
        SetUp();
        duringTheTest = putBacks;
        TearDown();
    }
    void TestBody() override {}

    int duringTheTest = 0;
};

}  // namespace

/// The fixture of the unit tests puts the state that classes share back before and after each test.
TEST(KivTest, PutsTheStateBackBeforeAndAfterEachTest) {
    const int before = putBacks;
    KivTestProbe probe;
    probe.run();
    EXPECT_EQ(probe.duringTheTest, before + 1);
    EXPECT_EQ(putBacks, before + 2);
}
