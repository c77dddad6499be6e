#pragma once

#include <functional>

#include <gtest/gtest.h>

/// The fixture of every test that touches class-wide state: puts all of it back before and after
/// each test (verbose flags, paths, cached sizes and errors, environment variables, ...).
///
/// What "back" means is registered beside the classes, in support/reset/<Area>.cpp:
///   static const KivTest::Reset resetStore([] { DB::setVerbose(false); ... });
class KivTest : public ::testing::Test {
  public:
    /// Registers a function that puts the state of one area back.
    class Reset {
      public:
        explicit Reset(std::function<void()> putBack);
    };

  protected:
    void SetUp() override { putAllBack(); }
    void TearDown() override { putAllBack(); }

  private:
    static void putAllBack();
};
