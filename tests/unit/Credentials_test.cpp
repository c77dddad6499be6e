#include "Credentials.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <malloc.h>
#include <stdlib.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "Config.h"
#include "JsonObject.h"
#include "support/AesCtr.h"
#include "support/CredentialsPeer.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/ServicesFile.h"

namespace {

const char* const kEnvironments[] = {"prod", "dev", "acc"};

class CredentialsTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        ::unsetenv("KIV_SERVERENV");
        Credentials::SetVerbose(false);
        CredentialsPeer::putBack();
    }
    void TearDown() override {
        ::unsetenv("KIV_SERVERENV");
        Credentials::SetVerbose(false);
        CredentialsPeer::putBack();
        KivTest::TearDown();
    }

    /// Each getter's value names its kind and environment.
    static void useOwnValues() {
        for (int env = 0; env < 3; ++env) {
            const std::string number = std::to_string(env);
            CredentialsPeer::setTouUrl("http://tou/" + number, env);
            CredentialsPeer::setWebTimeUrl("http://time/" + number, env);
            CredentialsPeer::setConfigUrl("http://config/" + number + "/", env);
            CredentialsPeer::setApiKey("key-" + number, env);
        }
    }

    void expectEnvironment(int env) const {
        const std::string number = std::to_string(env);
        EXPECT_EQ(m_credentials.getTouUrl(), "http://tou/" + number);
        EXPECT_EQ(m_credentials.getWebTimeUrl(), "http://time/" + number);
        EXPECT_EQ(m_credentials.getConfigUrl(), "http://config/" + number + "/");
        EXPECT_EQ(m_credentials.getLambdaKey(), "key-" + number);
    }

    static void selectEnvironment(const char* name) {
        ::setenv("KIV_SERVERENV", name, 1);
        Credentials::resetStagingEnv();
    }

    static std::string linesOf(const std::function<void()>& action) {
        Credentials::SetVerbose(true);
        OutputCapture capture;
        action();
        capture.stop();
        Credentials::SetVerbose(false);
        EXPECT_EQ(capture.err(), "");
        return capture.outWithoutPrefixes();
    }

    Credentials m_credentials;
};

// --- the public names of the service values -----------------------------------------------------

/// Each getter gives the value of the service tables for the chosen environment, with its line.
TEST_F(CredentialsTest, NamesTheServiceValuesOfTheChosenEnvironment) {
    useOwnValues();
    for (int env = 0; env < 3; ++env) {
        selectEnvironment(kEnvironments[env]);
        expectEnvironment(env);
    }
    EXPECT_EQ(linesOf([this] {
                  m_credentials.getConfigUrl();
                  m_credentials.getWebTimeUrl();
                  m_credentials.getTouUrl();
                  m_credentials.getLambdaKey();
              }),
              "credentials: Returning Config file URL for Release\n"
              "credentials: Returning web time URL for Release\n"
              "credentials: Returning Tou file URL for Release\n"
              "credentials: Returning Lambda key for Release\n");
}

/// It unscrambles a table's value for the chosen environment, read anew after a reset.
TEST_F(CredentialsTest, DecryptsATableForTheChosenEnvironment) {
    const std::vector<signed char> table[3] = {CredentialsPeer::scramble("first"),
                                               CredentialsPeer::scramble("second"),
                                               CredentialsPeer::scramble("third")};
    EXPECT_EQ(m_credentials.decrypt(table), "first");
    ::setenv("KIV_SERVERENV", "acc", 1);
    EXPECT_EQ(m_credentials.decrypt(table), "first");
    Credentials::resetStagingEnv();
    EXPECT_EQ(m_credentials.decrypt(table), "third");
}

/// It tells whether it is verbose.
TEST_F(CredentialsTest, TellsWhetherItIsVerbose) {
    EXPECT_FALSE(Credentials::GetVerbose());
    Credentials::SetVerbose(true);
    EXPECT_TRUE(Credentials::GetVerbose());
}

/// "prod", "dev" and "acc" choose the first, second and third vector of every table.
TEST_F(CredentialsTest, AccSelectsTheThirdStorageKey) {
    CredentialsPeer::setStorageKey("0123456789abcdef", 2);
    selectEnvironment("acc");
    const std::string iv(32, '0');
    EXPECT_EQ(
        m_credentials.decryptAES(iv, AesCtr::encrypt("0123456789abcdef", iv, "opened by acc")),
        "opened by acc");
}

/// The tables hold the services file of the build, and no value of it is readable in the
/// program.
TEST_F(CredentialsTest, OpensWhatTheStorageKeysOfTheBuildHaveClosed) {
    const JsonObject environments =
        servicesOfThisBuild(KIV_SOURCE_DIR, KIV_BINARY_DIR).getObject("environments");
    for (const char* name : kEnvironments) {
        const JsonObject expected = environments.getObject(name);
        ASSERT_TRUE(expected.isObject()) << name;
        selectEnvironment(name);
        const std::string iv(32, '7');
        const std::string cipher =
            AesCtr::encrypt(expected.optString("storage-key"), iv, "by the storage key");
        EXPECT_EQ(m_credentials.decryptAES(iv, cipher), "by the storage key");
    }
}

// --- AES ----------------------------------------------------------------------------------------

// NIST SP 800-38A, F.5.1 and F.5.2: AES-128 in counter mode.
const char* const kNistKey = "2b7e151628aed2a6abf7158809cf4f3c";
const char* const kNistCounter = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
const char* const kNistPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char* const kNistCipher =
    "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
    "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee";

class CredentialsAesTest : public CredentialsTest {
  protected:
    void SetUp() override {
        CredentialsTest::SetUp();
        CredentialsPeer::setStorageKey(AesCtr::bytesOfHex(kNistKey));
    }

    std::string decrypted(const std::string& iv, const std::string& cipher) const {
        return AesCtr::hexOfBytes(m_credentials.decryptAES(iv, cipher));
    }
    static std::string encrypted(const std::string& iv, const std::string& plain) {
        return AesCtr::encrypt(AesCtr::bytesOfHex(kNistKey), iv, plain);
    }
};

/// AES-128-CTR decrypts the published vectors, and parts of a block.
TEST_F(CredentialsAesTest, DecryptsThePublishedVectors) {
    EXPECT_EQ(decrypted(kNistCounter, kNistCipher), kNistPlain);
}

/// Hexadecimal text is read in any case, an odd last digit alone, other characters as zero.
TEST_F(CredentialsAesTest, ReadsUpperCaseDigitsToo) {
    EXPECT_EQ(decrypted("F0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF", "874D6191B620E3261BEF6864990DB6CE"),
              "6bc1bee22e409f96e93d7e117393172a");
}

/// AES-128-CTR decrypts the published vectors, and parts of a block.
TEST_F(CredentialsAesTest, DecryptsAPartOfABlock) {
    EXPECT_EQ(decrypted(kNistCounter, "874d61"), "6bc1be");
}

/// Hexadecimal text is read in any case, an odd last digit alone, other characters as zero.
TEST_F(CredentialsAesTest, AnOddLastDigitIsAByteOfItsOwn) {
    // 0x87 and then 0x04: the key stream's second byte is 0x4d ^ 0xc1.
    EXPECT_EQ(decrypted(kNistCounter, "874"),
              AesCtr::hexOfBytes({'\x6b', '\x04' ^ '\x4d' ^ '\xc1'}));
}

/// Hexadecimal text is read in any case, an odd last digit alone, other characters as zero.
TEST_F(CredentialsAesTest, PairsThatAreNotANumberCountAsZero) {
    EXPECT_EQ(decrypted(kNistCounter, "zz4d"), decrypted(kNistCounter, "004d"));
    EXPECT_EQ(decrypted(kNistCounter, "87--"), decrypted(kNistCounter, "8700"));
}

/// The result ends at the first zero byte.
TEST_F(CredentialsAesTest, TheResultEndsAtTheFirstZeroByte) {
    const std::string cipher = encrypted(kNistCounter, std::string("abc\0def", 7));
    EXPECT_EQ(m_credentials.decryptAES(kNistCounter, cipher), "abc");
}

/// AES-128-CTR decrypts the published vectors, and parts of a block.
TEST_F(CredentialsAesTest, EmptyCipherTextGivesEmptyText) {
    OutputCapture capture;
    EXPECT_EQ(m_credentials.decryptAES(kNistCounter, ""), "");
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// Short vectors and keys are filled with zeros; only 16 bytes of a long vector count.
TEST_F(CredentialsAesTest, AShortIvIsFilledWithZeros) {
    const std::string whole = "f0f1f2" + std::string(26, '0');
    EXPECT_EQ(m_credentials.decryptAES("f0f1f2", encrypted(whole, "short vector")), "short vector");
    const std::string zeros(32, '0');
    EXPECT_EQ(m_credentials.decryptAES("", encrypted(zeros, "no vector")), "no vector");
}

/// Short vectors and keys are filled with zeros; only 16 bytes of a long vector count.
TEST_F(CredentialsAesTest, OnlySixteenBytesOfALongIvCount) {
    EXPECT_EQ(decrypted(std::string(kNistCounter) + "aabbcc", kNistCipher), kNistPlain);
}

/// Short vectors and keys are filled with zeros; only 16 bytes of a long vector count.
TEST_F(CredentialsAesTest, AShortKeyIsFilledWithZeros) {
    CredentialsPeer::setStorageKey("short");
    const std::string cipher =
        AesCtr::encrypt("short" + std::string(11, '\0'), kNistCounter, "short key");
    EXPECT_EQ(m_credentials.decryptAES(kNistCounter, cipher), "short key");
}

/// A wrong key gives other text and no error.
TEST_F(CredentialsAesTest, AWrongKeyGivesOtherText) {
    const std::string cipher = encrypted(kNistCounter, "a secret of the cloud");
    CredentialsPeer::setStorageKey("another key 0123");
    EXPECT_NE(m_credentials.decryptAES(kNistCounter, cipher), "a secret of the cloud");
}

/// The context of the cipher is freed.
TEST_F(CredentialsAesTest, FreesTheContextOfTheCipher) {
    const auto decryptMany = [this] {
        for (int i = 0; i < 1000; ++i) m_credentials.decryptAES(kNistCounter, kNistCipher);
    };
    decryptMany();  // what OpenSSL keeps for itself
    const auto before = ::mallinfo2().uordblks;
    decryptMany();
    const auto after = ::mallinfo2().uordblks;
    EXPECT_LT(after < before ? 0 : after - before, 50000u) << "a context takes 100 bytes or more";
}

/// A failing call prints the library's error queue; a failed assertion ends the process.
TEST_F(CredentialsAesTest, AFailedAssertionEndsTheProcessThroughOpenSsl) {
    CredentialsPeer::assertHolds(true, "never shown", 1);
    EXPECT_DEATH(CredentialsPeer::assertHolds(
                     false, "EVP_CIPHER_CTX_key_length(ctx) == AES_128_KEY_SIZE", 123),
                 "src/Credentials:123: OpenSSL internal error: assertion failed: "
                 "EVP_CIPHER_CTX_key_length\\(ctx\\) == AES_128_KEY_SIZE");
}

/// A failing call prints the library's error queue; a failed assertion ends the process.
TEST_F(CredentialsAesTest, AFailingCallPrintsTheErrorQueueBeforeTheLengthsAreAsserted) {
    EXPECT_DEATH(
        {
            EVP_set_default_properties(nullptr, "provider=none");
            m_credentials.decryptAES(kNistCounter, kNistCipher);
        },
        "error:.*unsupported.*\n.*src/Credentials:[0-9]+: OpenSSL internal error: assertion "
        "failed: EVP_CIPHER_CTX_key_length\\(ctx\\) == AES_128_KEY_SIZE");
}

// --- cloud credentials --------------------------------------------------------------------------

class CloudCredentialsTest : public CredentialsAesTest {
  protected:
    void configure(const char* token) {
        JsonObject credentials = JsonObject::createObject();
        credentials.set("iv", std::string(kNistCounter));
        credentials.set("AccessKeyId", encrypted(kNistCounter, "the key id"));
        credentials.set("SecretAccessKey", encrypted(kNistCounter, "the secret"));
        credentials.set("SessionToken",
                        token == nullptr ? std::string() : encrypted(kNistCounter, token));
        JsonObject doc = JsonObject::createObject();
        doc.set("credentials", credentials);
        m_config->parseConfig(doc);
    }

    Config m_config;
};

/// Key, secret and token come from the configuration; an empty token stays empty.
TEST_F(CloudCredentialsTest, DecryptsWhatTheConfigurationDelivers) {
    configure("the session token");
    const std::shared_ptr<Aws::Auth::AWSCredentialsProvider> provider =
        std::make_shared<Credentials>();
    const auto credentials = provider->GetAWSCredentials();
    EXPECT_STREQ(credentials.GetAWSAccessKeyId().c_str(), "the key id");
    EXPECT_STREQ(credentials.GetAWSSecretKey().c_str(), "the secret");
    EXPECT_STREQ(credentials.GetSessionToken().c_str(), "the session token");
}

/// Key, secret and token come from the configuration; an empty token stays empty.
TEST_F(CloudCredentialsTest, AnEmptySessionTokenStaysEmpty) {
    configure(nullptr);
    const auto credentials = m_credentials.GetAWSCredentials();
    EXPECT_STREQ(credentials.GetAWSAccessKeyId().c_str(), "the key id");
    EXPECT_STREQ(credentials.GetAWSSecretKey().c_str(), "the secret");
    EXPECT_STREQ(credentials.GetSessionToken().c_str(), "");
}

/// Key, secret and token come from the configuration; an empty token stays empty.
TEST_F(CloudCredentialsTest, WithoutDeliveredCredentialsAllAreEmpty) {
    const auto credentials = m_credentials.GetAWSCredentials();
    EXPECT_STREQ(credentials.GetAWSAccessKeyId().c_str(), "");
    EXPECT_STREQ(credentials.GetAWSSecretKey().c_str(), "");
    EXPECT_STREQ(credentials.GetSessionToken().c_str(), "");
}

/// A wrong key gives other text and no error.
TEST_F(CloudCredentialsTest, AWrongKeyGivesGarbageAndNoError) {
    configure("the session token");
    CredentialsPeer::setStorageKey("another key 0123");
    OutputCapture capture;
    const auto credentials = m_credentials.GetAWSCredentials();
    capture.stop();
    EXPECT_STRNE(credentials.GetAWSAccessKeyId().c_str(), "the key id");
    EXPECT_STRNE(credentials.GetAWSSecretKey().c_str(), "the secret");
    EXPECT_EQ(capture.err(), "");
}

}  // namespace
