#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AwsWrapperImpl.h"
#include "CKivApp.h"
#include "DB.h"
#include "EventFilter.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

/// argv of a program "kivApp".
class Arguments {
  public:
    explicit Arguments(std::vector<std::string> arguments) : m_texts(std::move(arguments)) {
        m_texts.insert(m_texts.begin(), "kivApp");
        for (std::string& text : m_texts) m_pointers.push_back(text.data());
        m_pointers.push_back(nullptr);
    }
    int count() const { return static_cast<int>(m_texts.size()); }
    char* const* values() const { return m_pointers.data(); }

  private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

/// A forked child; killed at the end unless it ended before.
class Child {
  public:
    explicit Child(const std::function<void()>& body) {
        std::cout.flush();
        std::fflush(nullptr);
        m_pid = ::fork();
        if (m_pid != 0) return;
        body();
        ::_exit(0);
    }
    ~Child() {
        if (m_ended) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    bool isRunning() {
        if (!m_ended) m_ended = ::waitpid(m_pid, &m_status, WNOHANG) == m_pid;
        return !m_ended;
    }
    /// The exit status, waiting for the end; -1 when it was killed or does not end.
    int exitStatus() {
        if (!WaitUntil([this] { return !isRunning(); })) return -1;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

  private:
    pid_t m_pid = -1;
    int m_status = 0;
    bool m_ended = false;
};

struct Ended {
    int status;
    std::string out;
    std::string err;
};

/// An application on files of the test's own, on the test's thread or in a child.
class AppSetup : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        CKivApp::SetAllVerbose(false);
        EventFilter::m_verbose = false;
        AwsWrapperImpl::SetTestMode("");
        DB::m_dbError = false;
        DB::m_TotalEventSize = -1;
    }

    void TearDown() override {
        CKivApp::SetAllVerbose(false);
        EventFilter::m_verbose = false;
        AwsWrapperImpl::SetTestMode("");
        KivTest::TearDown();
    }

    std::unique_ptr<CKivApp> makeApp() const {
        return std::make_unique<CKivApp>(m_dir.file("GlobalInfo"), m_dir.file("BootInfo"),
                                         m_dir.file("Config"), m_dir.file("Db"),
                                         m_dir.path() + "/");
    }

    /// The files of a television with consent.
    void writeDefaultFiles() const {
        m_dir.write("GlobalInfo", R"({"deviceid": "dev1", "ufversion": "1.2.3", "op_hour": 3,
                                      "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})");
        m_dir.write("BootInfo", R"({"boot-count": 7, "standby-count": 2})");
        m_dir.write("current_tou.txt", "CUL-TOU 3 TRUE");
        m_dir.write("Config", R"({"kiv_tou": true, "expiry_tou": 900,
                                  "upload_events": {"max-delay": 1800}})");
    }

    /// Parses on this thread and returns the application.
    std::unique_ptr<CKivApp> parsed(const std::vector<std::string>& arguments) const {
        auto app = makeApp();
        const Arguments given(arguments);
        EXPECT_EQ(app->Init(given.count(), given.values()), 0);
        return app;
    }

    /// What a process does that parses these arguments.
    Ended parseInChild(const std::vector<std::string>& arguments) const {
        OutputCapture capture;
        int status = -1;
        {
            Child child([&] {
                const Arguments given(arguments);
                makeApp()->Init(given.count(), given.values());
                ::_exit(42);
            });
            status = child.exitStatus();
        }
        capture.stop();
        return {status, capture.outWithoutPrefixes(), capture.errWithoutPrefixes()};
    }

    TempDir m_dir;
};
