#include "ServiceTables.h"

#include <functional>
#include <string>
#include <vector>

#include <stdlib.h>

#include <gtest/gtest.h>

#include "JsonObject.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/ServicesFile.h"
#include "support/ServiceTablesPeer.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"

namespace {

const char* const kEnvironments[] = {"prod", "dev", "acc"};
const char* const kServiceKinds[] = {"tou-url", "web-time-url", "config-url", "api-key",
                                     "storage-key"};

class ServiceTablesTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        ::unsetenv("KIV_SERVERENV");
        ServiceTables::setVerbose(false);
        ServiceTablesPeer::putBack();
    }
    void TearDown() override {
        ::unsetenv("KIV_SERVERENV");
        ServiceTables::setVerbose(false);
        ServiceTablesPeer::putBack();
        KivTest::TearDown();
    }

    /// Each getter's value names its kind and environment.
    static void useOwnValues() {
        for (int env = 0; env < 3; ++env) {
            const std::string number = std::to_string(env);
            ServiceTablesPeer::setTouUrl("http://tou/" + number, env);
            ServiceTablesPeer::setWebTimeUrl("http://time/" + number, env);
            ServiceTablesPeer::setConfigUrl("http://config/" + number + "/", env);
            ServiceTablesPeer::setApiKey("key-" + number, env);
            ServiceTablesPeer::setStorageKey("storage " + number, env);
        }
    }

    static void expectEnvironment(int env) {
        const std::string number = std::to_string(env);
        EXPECT_EQ(ServiceTables::getTouUrl(), "http://tou/" + number);
        EXPECT_EQ(ServiceTables::getWebTimeUrl(), "http://time/" + number);
        EXPECT_EQ(ServiceTables::getConfigUrl(), "http://config/" + number + "/");
        EXPECT_EQ(ServiceTables::getLambdaKey(), "key-" + number);
        EXPECT_EQ(ServiceTables::getStorageKey(), "storage " + number);
    }

    static void selectEnvironment(const char* name) {
        ::setenv("KIV_SERVERENV", name, 1);
        ServiceTables::forgetEnvironment();
    }

    static std::string linesOf(const std::function<void()>& action) {
        ServiceTables::setVerbose(true);
        OutputCapture capture;
        action();
        capture.stop();
        ServiceTables::setVerbose(false);
        EXPECT_EQ(capture.err(), "");
        return capture.outWithoutPrefixes();
    }

    static std::string unscrambled(const std::vector<unsigned char>& sums) {
        const std::vector<signed char> table[3] = {ServiceTablesPeer::differences(sums), {}, {}};
        return ServiceTables::decrypt(table);
    }
};

// --- environment --------------------------------------------------------------------------------

/// Unset means production; another case or an unknown value keeps the choice.
TEST_F(ServiceTablesTest, UsesProductionWithoutTheVariable) {
    useOwnValues();
    expectEnvironment(0);
}

/// "prod", "dev" and "acc" choose the first, second and third vector of every table.
TEST_F(ServiceTablesTest, ProdSelectsTheFirstVectorOfEveryTable) {
    useOwnValues();
    selectEnvironment("prod");
    expectEnvironment(0);
}

/// "prod", "dev" and "acc" choose the first, second and third vector of every table.
TEST_F(ServiceTablesTest, DevSelectsTheSecondVectorOfEveryTable) {
    useOwnValues();
    selectEnvironment("dev");
    expectEnvironment(1);
}

/// "prod", "dev" and "acc" choose the first, second and third vector of every table.
TEST_F(ServiceTablesTest, AccSelectsTheThirdVectorOfEveryTable) {
    useOwnValues();
    selectEnvironment("acc");
    expectEnvironment(2);
}

/// Unset means production; another case or an unknown value keeps the choice.
TEST_F(ServiceTablesTest, AnotherCaseOfTheVariableKeepsProduction) {
    useOwnValues();
    selectEnvironment("ACC");
    expectEnvironment(0);
}

/// Unset means production; another case or an unknown value keeps the choice.
TEST_F(ServiceTablesTest, AnUnknownOrEmptyValueKeepsThePreviousChoice) {
    useOwnValues();
    selectEnvironment("dev");
    expectEnvironment(1);
    selectEnvironment("staging");
    expectEnvironment(1);
    selectEnvironment("");
    expectEnvironment(1);
}

/// The choice stays until it is reset.
TEST_F(ServiceTablesTest, AnUnsetVariableGoesBackToProductionAfterAReset) {
    useOwnValues();
    selectEnvironment("dev");
    expectEnvironment(1);
    ::unsetenv("KIV_SERVERENV");
    ServiceTables::forgetEnvironment();
    expectEnvironment(0);
}

/// The choice stays until it is reset.
TEST_F(ServiceTablesTest, KeepsTheChoiceUntilTheReset) {
    useOwnValues();
    selectEnvironment("acc");
    expectEnvironment(2);
    ::setenv("KIV_SERVERENV", "dev", 1);
    expectEnvironment(2);
    ServiceTables::forgetEnvironment();
    expectEnvironment(1);
}

/// Verbose, the choice is told.
TEST_F(ServiceTablesTest, SaysWhichEnvironmentItMovesTo) {
    selectEnvironment("dev");
    EXPECT_EQ(linesOf([] { ServiceTables::getTouUrl(); }),
              "credentials: Returning Tou file URL for Release\n"
              "credentials: Move staging environment to dev\n");
}

/// Verbose, the choice is told.
TEST_F(ServiceTablesTest, SaysAnUnknownEnvironmentToo) {
    selectEnvironment("mars");
    EXPECT_EQ(linesOf([] { ServiceTables::getLambdaKey(); }),
              "credentials: Returning Lambda key for Release\n"
              "credentials: Move staging environment to mars\n");
}

/// Verbose, the choice is told.
TEST_F(ServiceTablesTest, SaysThatItRestoresProduction) {
    EXPECT_EQ(linesOf([] { ServiceTables::getConfigUrl(); }),
              "credentials: Returning Config file URL for Release\n"
              "credentials: Restoring default ENV to prod\n");
}

/// Verbose, each getter says what it returns and for which key set.
TEST_F(ServiceTablesTest, EachGetterSaysWhatItReturns) {
    ServiceTables::getTouUrl();  // the environment is chosen, and not spoken of again
    EXPECT_EQ(linesOf([] {
                  ServiceTables::getConfigUrl();
                  ServiceTables::getWebTimeUrl();
                  ServiceTables::getTouUrl();
                  ServiceTables::getLambdaKey();
              }),
              "credentials: Returning Config file URL for Release\n"
              "credentials: Returning web time URL for Release\n"
              "credentials: Returning Tou file URL for Release\n"
              "credentials: Returning Lambda key for Release\n");
}

/// Verbose, each getter says what it returns and for which key set.
TEST_F(ServiceTablesTest, ItsLinesCarryTheDiagnosticPrefix) {
    ServiceTables::setVerbose(true);
    OutputCapture capture;
    ServiceTables::getConfigUrl();
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "credentials:"),
              "credentials: Returning Config file URL for Release\n"
              "credentials: Restoring default ENV to prod\n");
}

/// Verbose, each getter says what it returns and for which key set.
TEST_F(ServiceTablesTest, SaysNothingWhenNotVerbose) {
    selectEnvironment("dev");
    OutputCapture capture;
    ServiceTables::getConfigUrl();
    ServiceTables::getWebTimeUrl();
    ServiceTables::getTouUrl();
    ServiceTables::getLambdaKey();
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
    EXPECT_FALSE(ServiceTables::isVerbose());
}

// --- unscrambling -------------------------------------------------------------------------------

/// Unscrambling orders the characters of the first half by the second.
TEST_F(ServiceTablesTest, OrdersTheFirstHalfByTheSecond) {
    // Characters 'b', 'a', 'c' less 40; read from the end their places are 1, 0, 2.
    EXPECT_EQ(unscrambled({'b' - 40, 'a' - 40, 'c' - 40, 2, 0, 1}), "abc");
}

/// The middle of an odd vector only feeds the running sum, which wraps at a byte.
TEST_F(ServiceTablesTest, TheMiddleOfAnOddVectorOnlyFeedsTheSum) {
    EXPECT_EQ(unscrambled({'b' - 40, 'a' - 40, 77, 0, 1}), "ab");
    EXPECT_EQ(unscrambled({'b' - 40, 'a' - 40, 200, 0, 1}), "ab");
}

/// A place not named is left out; of two the position nearest to the end wins.
TEST_F(ServiceTablesTest, APlaceThatIsNotNamedIsLeftOut) {
    EXPECT_EQ(unscrambled({'a' - 40, 'b' - 40, 'c' - 40, 2, 9, 0}), "ac");
}

/// A place not named is left out; of two the position nearest to the end wins.
TEST_F(ServiceTablesTest, ThePositionNearestToTheEndWinsAPlaceNamedTwice) {
    EXPECT_EQ(unscrambled({'a' - 40, 'b' - 40, 0, 0}), "a");
}

/// Shortest and longest vectors are unscrambled right.
TEST_F(ServiceTablesTest, ShortestVectorsGiveNothing) {
    EXPECT_EQ(unscrambled({}), "");
    EXPECT_EQ(unscrambled({50}), "");
}

/// The middle of an odd vector only feeds the running sum, which wraps at a byte.
TEST_F(ServiceTablesTest, RunningSumsWrapAtAByte) {
    // Sums above 127, and a character that passes 255 when the 40 come back.
    EXPECT_EQ(unscrambled({215, 255, 1, 0}), std::string("\xff\x27", 2));
}

/// Shortest and longest vectors are unscrambled right.
TEST_F(ServiceTablesTest, UnscramblesTheLongestValue) {
    std::string text;
    for (int i = 0; i < 256; ++i) text.push_back(static_cast<char>(i));
    const std::vector<signed char> table[3] = {ServiceTablesPeer::scramble(text), {}, {}};
    EXPECT_EQ(ServiceTables::decrypt(table), text);
}

// --- the build's tables -------------------------------------------------------------------------

/// The tables hold the services file of the build, and no value of it is readable in the
/// program.
TEST_F(ServiceTablesTest, TheTablesHoldTheServicesFileOfTheBuild) {
    const JsonObject environments =
        servicesOfThisBuild(KIV_SOURCE_DIR, KIV_BINARY_DIR).getObject("environments");
    for (const char* name : kEnvironments) {
        const JsonObject expected = environments.getObject(name);
        ASSERT_TRUE(expected.isObject()) << name;
        selectEnvironment(name);
        EXPECT_EQ(ServiceTables::getTouUrl(), expected.optString("tou-url"));
        EXPECT_EQ(ServiceTables::getWebTimeUrl(), expected.optString("web-time-url"));
        EXPECT_EQ(ServiceTables::getConfigUrl(), expected.optString("config-url"));
        EXPECT_EQ(ServiceTables::getLambdaKey(), expected.optString("api-key"));
        EXPECT_EQ(ServiceTables::getStorageKey(), expected.optString("storage-key"));
    }
}

/// The tables hold the services file of the build, and no value of it is readable in the
/// program.
TEST_F(ServiceTablesTest, NoServiceValueIsReadableInTheProgram) {
    const JsonObject environments =
        servicesOfThisBuild(KIV_SOURCE_DIR, KIV_BINARY_DIR).getObject("environments");
    std::vector<std::string> images = {TempDir::readFile(KIV_BINARY_DIR "/libkiv.a")};
    const std::string program = TempDir::readFile(KIV_BINARY_DIR "/kivApp");
    if (!program.empty()) images.push_back(program);
    for (const std::string& image : images) {
        // A text that must be there shows that the search sees the program's constants.
        ASSERT_NE(image.find("Config could not be retrieved from server"), std::string::npos);
        for (const char* environment : kEnvironments) {
            for (const char* kind : kServiceKinds) {
                const std::string value = environments.getObject(environment).optString(kind);
                ASSERT_FALSE(value.empty()) << environment << "/" << kind;
                EXPECT_EQ(image.find(value), std::string::npos) << environment << "/" << kind;
            }
        }
    }
}

/// The storage key is never spoken of.
TEST_F(ServiceTablesTest, SaysNothingOfTheStorageKey) {
    ServiceTables::getTouUrl();  // the environment is chosen, and not spoken of again
    EXPECT_EQ(linesOf([] { ServiceTables::getStorageKey(); }), "");
}

}  // namespace
