#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <errno.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "AwsWrapperImpl.h"
#include "support/AesCtr.h"
#include "support/CredentialsPeer.h"
#include "support/UploadSetup.h"

/// The cloud client of a television that may upload. Its working directory is one that nobody else
/// can read, as the SDK's log demands.
class CloudClientSetup : public UploadSetup {
  protected:
    void SetUp() override {
        UploadSetup::SetUp();
        m_before = std::filesystem::current_path();
        std::filesystem::current_path(dir.path());
    }

    void TearDown() override {
        std::filesystem::current_path(m_before);
        UploadSetup::TearDown();
    }

    static constexpr char kTag[] = "kivAWSWrapper: ";
    inline static const std::string kUploadFailed =
        "kivAWSWrapper: Failed sending file to S3 AWS\nkivAWSWrapper: Error = ";
    inline static const std::string kPutFailed =
        "kivAWSWrapper: Failed sending packet to Firehose AWS\nkivAWSWrapper: Error = ";

    void giveCredentials() {
        const std::string key = "0123456789abcdef";
        const std::string iv = "000102030405060708090a0b0c0d0e0f";
        CredentialsPeer::setStorageKey(key);
        JsonObject credentials;
        credentials.Pack("{s:s, s:s, s:s, s:s}",                                         //
                         "iv", iv.c_str(),                                               //
                         "AccessKeyId", AesCtr::encrypt(key, iv, "AKID").c_str(),        //
                         "SecretAccessKey", AesCtr::encrypt(key, iv, "secret").c_str(),  //
                         "SessionToken", AesCtr::encrypt(key, iv, "token1").c_str());
        configure(R"({"credentials": )" + credentials.dumpAsString() + "}");
    }

    std::string testFile(const std::string& text) {
        const std::string path = dir.write("test.json", text);
        AwsWrapperImpl::SetTestMode(path);
        return path;
    }

    /// What the process has left over: children that were not waited for.
    static bool hasChildren() { return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

    /// That the lines are these and the service's text. Some versions of the cloud's own SDK add
    /// the server's address to it.
    static void expectFailure(const std::string& lines, const std::string& expected) {
#ifdef KIV_AWSLITE
        EXPECT_EQ(lines, expected + "\n");
#else
        EXPECT_EQ(lines.substr(0, expected.size()), expected);
        EXPECT_EQ(lines.find('\n', expected.size()), lines.size() - 1) << lines;
#endif
    }

    AwsWrapperImpl& client() {
        if (m_client == nullptr) m_client = std::make_unique<AwsWrapperImpl>();
        return *m_client;
    }

  private:
    std::filesystem::path m_before;
    std::unique_ptr<AwsWrapperImpl> m_client;
};
