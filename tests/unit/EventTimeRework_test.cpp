#include "EventTimeRework.h"

#include "CycleTimes.h"
#include "UploadImpl.h"
#include "support/JsonMemory.h"
#include "support/TaggedLines.h"
#include "support/UploadSetup.h"

namespace {

constexpr char kTag[] = "kivUpload: ";

class EventTimeReworkTest : public UploadSetup {
  protected:
    /// A stored event of the running cycle at the kernel time of kNowMs + 5 s.
    std::string eventOfThisCycle(const std::string& more = "") const {
        return R"({"boot-count": 7, "standby-count": 2, "kernel-time": )" +
               std::to_string(kernelNow + 5000) + more + "}";
    }

    const std::string eventOfUnknownCycle =
        R"({"boot-count": 3, "standby-count": 0, "kernel-time": 1000})";
};

}  // namespace

/// A time that the sender knew is trusted and the text untouched.
TEST_F(EventTimeReworkTest, TrustsTheTimeThatTheSenderKnew) {
    std::string event = R"({"boot-count": 7, "utc-time": "1500000000000"})";
    const std::string before = event;
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), 1500000000000);
    EXPECT_EQ(event, before);
}

/// It is read as a decimal number, blanks before and text after it allowed.
TEST_F(EventTimeReworkTest, ReadsTheGivenTimeAsADecimalNumber) {
    const auto timeOf = [](const std::string& text) {
        std::string event = R"({"utc-time": ")" + text + R"("})";
        return EventTimeRework::reworkEventTime(event, true);
    };
    EXPECT_EQ(timeOf("  1500000000000"), 1500000000000);
    EXPECT_EQ(timeOf("+12"), 12);
    EXPECT_EQ(timeOf("-12"), -12);
    EXPECT_EQ(timeOf("12 o'clock"), 12);
}

/// An event of a known cycle gets "utc-time" as text and "utc-src".
TEST_F(EventTimeReworkTest, TimesAnEventOfAKnownCycle) {
    std::string event = eventOfThisCycle();
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), kNowMs + 5000);
    EXPECT_EQ(event, R"({"boot-count": 7, "standby-count": 2, "kernel-time": )" +
                         std::to_string(kernelNow + 5000) +
                         R"(, "utc-time": "1551953707000", "utc-src": "web"})");
}

/// An event of a known cycle gets "utc-time" as text and "utc-src".
TEST_F(EventTimeReworkTest, NamesTheSystemTimeWhereThatIsTheSource) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 0), 1500000000000);
    std::string event = eventOfUnknownCycle;
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), 1500000001000);
    EXPECT_EQ(event, R"({"boot-count": 3, "standby-count": 0, "kernel-time": 1000, )"
                     R"("utc-time": "1500000001000", "utc-src": "system"})");
}

/// An unknown time is dropped on demand, else written as "0".
TEST_F(EventTimeReworkTest, DropsAnUnknownTimeOnDemand) {
    std::string event = R"({"boot-count": 3, "utc-time": "0", "a": 1})";
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), 0);
    EXPECT_EQ(event, R"({"boot-count": 3, "a": 1})");
}

/// An unknown time is dropped on demand, else written as "0".
TEST_F(EventTimeReworkTest, WritesAnUnknownTimeAsZeroOtherwise) {
    std::string event = eventOfUnknownCycle;
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, false), 0);
    EXPECT_EQ(event,
              R"({"boot-count": 3, "standby-count": 0, "kernel-time": 1000, "utc-time": "0"})");
}

/// A malformed time: "Cannot convert this string to a long long!", and it counts as absent.
TEST_F(EventTimeReworkTest, TreatsAMalformedTimeAsAbsent) {
    for (const char* text : {"abc", "-", "99999999999999999999"}) {
        std::string event = eventOfThisCycle(std::string(R"(, "utc-time": ")") + text + "\"");
        OutputCapture output;
        EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), kNowMs + 5000) << text;
        output.stop();
        EXPECT_EQ(output.errWithoutPrefixes(),
                  "kivUpload: Cannot convert this string to a long long!\n");
        EXPECT_EQ(JsonObject::parse(event).optString("utc-time"), "1551953707000");
    }
}

/// A malformed time: "Cannot convert this string to a long long!", and it counts as absent.
TEST_F(EventTimeReworkTest, TreatsATimeThatIsNoStringAsAbsent) {
    std::string event = eventOfThisCycle(R"(, "utc-time": 5)");
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), kNowMs + 5000);
}

/// An event that cannot be written stays as it was, and is timed.
TEST_F(EventTimeReworkTest, LeavesAnEventThatCannotBeWrittenAsItWasButTimesIt) {
    std::string event = eventOfThisCycle(R"(, "value": 1.5)");  // takes memory to write
    const std::string before = event;
    UploadImpl::SetVerbose(true);
    {
        const NoJsonMemoryFrom source("Add time source ");
        EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), kNowMs + 5000);
        EXPECT_TRUE(source.hasCome());
    }
    UploadImpl::SetVerbose(false);
    EXPECT_EQ(event, before);
}

/// Text that is not JSON is timed from the reference of zeros and left untouched.
TEST_F(EventTimeReworkTest, TimesTextThatIsNoJsonFromTheZeroReference) {
    std::string event = "no json";
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), 0);
    EXPECT_EQ(event, "no json");
    timeManager->setTime(TimeSourceWeb, TimeReference(0, 0, 0), 1500000000000);
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, true), 1500000000000);
    EXPECT_EQ(event, "no json");
}

/// Verbose, the change is told; otherwise nothing is.
TEST_F(EventTimeReworkTest, DescribesAReplacedTimeWhenVerbose) {
    UploadImpl::SetVerbose(true);
    std::string event = eventOfThisCycle();
    const std::string before = event;
    OutputCapture output;
    EventTimeRework::reworkEventTime(event, true);
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload: Replacing UTC-Time in event:" + before +
                  "\nkivUpload: Add time source web\nkivUpload: Event as JSON object: " + event +
                  "\nkivUpload: Event utcTime = 1551953707000\n");
}

/// Verbose, the change is told; otherwise nothing is.
TEST_F(EventTimeReworkTest, DescribesARemovedTimeWhenVerbose) {
    UploadImpl::SetVerbose(true);
    std::string event = eventOfUnknownCycle;
    OutputCapture output;
    EventTimeRework::reworkEventTime(event, true);
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload: Removing UTC-Time in event:" + eventOfUnknownCycle +
                  "\nkivUpload: Event as JSON object: " + event +
                  "\nkivUpload: Event utcTime = 0\n");
}

/// Verbose, the change is told; otherwise nothing is.
TEST_F(EventTimeReworkTest, IsSilentOtherwise) {
    std::string event = eventOfThisCycle();
    OutputCapture output;
    EventTimeRework::reworkEventTime(event, true);
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}

// --- events that were parsed before --------------------------------------------------------------

/// An event that was parsed before gets the same time and the same members as its text.
TEST_F(EventTimeReworkTest, TimesAParsedEventLikeItsText) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 0), 1500000000000);
    timeManager->setTime(TimeSourceWeb, TimeReference(0, 0, 0), 1400000000000);
    CycleTimes times(*timeManager);
    for (const std::string& text :
         {eventOfThisCycle(), eventOfThisCycle(R"(, "utc-time": "1500000000000")"),
          eventOfThisCycle(R"(, "utc-time": "0", "utc-src": "other")"),
          eventOfThisCycle(R"(, "utc-time": 5)"), eventOfUnknownCycle,
          std::string(R"({"boot-count": 9, "utc-time": "0"})"),
          std::string(R"({"boot-count": "3", "standby-count": 1.0, "kernel-time": null})"),
          std::string(R"([{"boot-count": 3}])"), std::string("no json"), std::string()}) {
        for (const bool dropUnknown : {true, false}) {
            std::string front = text;
            const std::int64_t time = EventTimeRework::reworkEventTime(front, dropUnknown);
            JsonObject event = JsonObject::parse(text);
            EXPECT_EQ(EventTimeRework::reworkEventTime(event, text, dropUnknown, times), time)
                << text;
            EXPECT_EQ(event.isNull() ? text : event.dumpAsString(), front);
        }
    }
}

/// A malformed time: "Cannot convert this string to a long long!", and it counts as absent.
TEST_F(EventTimeReworkTest, TreatsAMalformedTimeOfAParsedEventAsAbsent) {
    const std::string text = eventOfThisCycle(R"(, "utc-time": "abc")");
    JsonObject event = JsonObject::parse(text);
    CycleTimes times(*timeManager);
    OutputCapture output;
    EXPECT_EQ(EventTimeRework::reworkEventTime(event, text, true, times), kNowMs + 5000);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot convert this string to a long long!\n");
}

/// Verbose, the change is told; otherwise nothing is.
TEST_F(EventTimeReworkTest, DescribesTheChangeOfAParsedEventWhenVerbose) {
    const std::string text = eventOfThisCycle();
    JsonObject event = JsonObject::parse(text);
    CycleTimes times(*timeManager);
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    EventTimeRework::reworkEventTime(event, text, true, times);
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload: Replacing UTC-Time in event:" + text +
                  "\nkivUpload: Add time source web\nkivUpload: Event as JSON object: " +
                  event.dumpAsString() + "\nkivUpload: Event utcTime = 1551953707000\n");
}
