#include "EventsPacket.h"

#include <regex>
#include <sstream>

#include "AwsWrapperImpl.h"
#include "CycleTimes.h"
#include "EventTimeRework.h"
#include "support/EventsPacketPeer.h"
#include "support/JsonMemory.h"
#include "support/TaggedLines.h"
#include "support/UploadSetup.h"

namespace {

using AwsWrapper::EventsPacket;
using AwsWrapper::EventsPacketPeer;

constexpr char kTag[] = "kivAWSWrapper: ";
constexpr int kAmple = 131072;
constexpr std::int64_t kTime = 1500000000123;  // 2017-07-14T02:40:00.123Z

std::string event(int boot, int standby, const std::string& more = "") {
    return R"({"event-type": "e", "boot-count": )" + std::to_string(boot) +
           R"(, "standby-count": )" + std::to_string(standby) + R"(, "kernel-time": 1234)" + more +
           "}";
}

const std::string kReworked =
    R"({"event-type": "e", "time": "2017-07-14T02:40:00.123Z", "ts": 1234})";

class EventsPacketTest : public UploadSetup {
  protected:
    /// The lines of the only record that the cloud got.
    std::vector<std::string> sentLines() const {
        std::vector<std::string> lines;
        const auto texts = records();
        EXPECT_EQ(texts.size(), 1u);
        if (texts.empty()) return lines;
        std::istringstream in(texts.front());
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        EXPECT_EQ(texts.front().back(), '\n');
        return lines;
    }

    /// What comes after the header of a block.
    static std::string eventsOf(const std::string& block) {
        const std::size_t begin = block.find(",\"events\":[");
        return begin == std::string::npos ? "(none)" : block.substr(begin);
    }

    /// Stored events as senders may write them, of several cycles, in turns.
    static std::vector<std::string> oddEvents() {
        std::vector<std::string> events = {
            "no json",
            "",
            "5",
            R"([1, {"boot-count": 3}])",
            "{}",
            R"({"a": 1)",
            R"({"a": 1e999})",
            R"({"a": 0.1, "b": 1e300, "c": -0.0, "d": 2.5e-7, "e": 123456789012345678, "f": 3.0})",
            R"({"s": "\u00e9\u20ac \ud83d\ude00", "t": "\u0001\/\"\n", "\u00fc": "é€😀"})",
            R"({"dup": 1, "other": 2, "dup": 3})",
            R"( {"kernel-time" : 5 ,"data":{"a":1 ,"time":"x","utc-src":"y"},"a":2, "ts":[1]} )",
            R"({"boot-count": 7, "standby-count": 2, "data": {"boot-count": 9, "kernel-time": 42}})",
            R"({"boot-count": 7, "standby-count": 2, "data": {"data": {"z": 1}, "utc-time": "7"}})",
            R"({"data": [1], "nested": {"a": [[], {}, [{"b": null}]], "c": true}})",
            R"({"boot-count": "3", "standby-count": 0.0, "kernel-time": null})",
            R"({"boot-count": 4294967299, "standby-count": -1, "kernel-time": -9})"};
        for (const char* time : {"\"1500000000000\"", "\"0\"", "\"abc\"", "5", "\" -12x\"",
                                 "\"99999999999999999999\"", "\"\"", "null"}) {
            for (const int boot : {3, 7, 8}) {
                events.push_back(event(boot, 2, std::string(R"(, "utc-time": )") + time));
            }
        }
        return events;
    }

    /// The packet's text without the moments at which its headers were made.
    static std::string timelessText(const EventsPacket& packet) {
        return std::regex_replace(EventsPacketPeer::text(packet),
                                  std::regex(R"("upload-time": "[^"]*")"), "\"upload-time\": \"\"");
    }

    /// The one event of a packet, as it would be sent.
    static std::string rework(const std::string& text) {
        EventsPacket packet(kAmple);
        EXPECT_TRUE(packet.AddEvent(text, kTime));
        const std::string events = eventsOf(EventsPacketPeer::text(packet));
        return events.substr(std::string(",\"events\":[").size());
    }
};

}  // namespace

/// One event goes out after its header, closed by "]}" and a line feed.
TEST_F(EventsPacketTest, SendsOneEventAfterItsHeader) {
    EventsPacket packet(kAmple);
    EXPECT_TRUE(packet.AddEvent(event(3, 0), kTime));
    EXPECT_TRUE(packet.Send());
    const auto lines = sentLines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string tail = ",\"events\":[" + kReworked + "]}";
    EXPECT_EQ(eventsOf(lines[0]), tail);
    const JsonObject header =
        JsonObject::parse(lines[0].substr(0, lines[0].size() - tail.size()) + "}");
    EXPECT_EQ(header.optInteger("boot-count", -1), 3);
    EXPECT_EQ(header.optInteger("standby-count", -1), 0);
    EXPECT_EQ(header.optString("start-time"), "2017-07-14T02:40:00.123Z");
    EXPECT_EQ(header.optString("db-token"), kToken);
}

/// A new block begins with each change of boot or standby count.
TEST_F(EventsPacketTest, OpensABlockForEachCycle) {
    EventsPacket packet(kAmple);
    EXPECT_TRUE(packet.AddEvent(event(3, 0), kTime));
    EXPECT_TRUE(packet.AddEvent(event(3, 0), kTime));
    EXPECT_TRUE(packet.AddEvent(event(4, 1), kTime));
    EXPECT_TRUE(packet.Send());
    const auto lines = sentLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(eventsOf(lines[0]), ",\"events\":[" + kReworked + "," + kReworked + "]}");
    EXPECT_EQ(eventsOf(lines[1]), ",\"events\":[" + kReworked + "]}");
    for (const std::string& line : lines) EXPECT_TRUE(JsonObject::parse(line).isObject()) << line;
    EXPECT_EQ(JsonObject::parse(lines[1]).optInteger("boot-count", -1), 4);
    EXPECT_EQ(JsonObject::parse(lines[1]).optInteger("standby-count", -1), 1);
}

/// A new block begins with each change of boot or standby count.
TEST_F(EventsPacketTest, OpensABlockForANewStandbyCycleToo) {
    EventsPacket packet(kAmple);
    packet.AddEvent(event(3, 0), kTime);
    packet.AddEvent(event(3, 1), kTime);
    packet.Send();
    EXPECT_EQ(sentLines().size(), 2u);
}

/// The members of "data" go to the top, over those of the same name; data that is not an object
/// stays.
TEST_F(EventsPacketTest, LiftsTheMembersOfDataToTheTop) {
    EXPECT_EQ(rework(R"({"a": 2, "data": {"a": 1, "b": "x"}, "kernel-time": 5})"),
              R"({"a": 1, "b": "x", "time": "2017-07-14T02:40:00.123Z", "ts": 5})");
}

/// The members of "data" go to the top, over those of the same name; data that is not an object
/// stays.
TEST_F(EventsPacketTest, KeepsDataThatIsNoObject) {
    EXPECT_EQ(rework(R"({"data": [1], "kernel-time": 5})"),
              R"({"data": [1], "time": "2017-07-14T02:40:00.123Z", "ts": 5})");
}

/// The members of "data" go to the top, over those of the same name; data that is not an object
/// stays.
TEST_F(EventsPacketTest, DropsDataInsideDataWithIt) {
    EXPECT_EQ(rework(R"({"data": {"data": {"a": 1}, "b": 2}, "kernel-time": 5})"),
              R"({"b": 2, "time": "2017-07-14T02:40:00.123Z", "ts": 5})");
}

/// Without a kernel time "ts" is -1.
TEST_F(EventsPacketTest, MarksAnEventWithoutKernelTime) {
    EXPECT_EQ(rework(R"({"a": 1})"), R"({"a": 1, "time": "2017-07-14T02:40:00.123Z", "ts": -1})");
}

/// Counts, kernel time and "utc-time" are left out, "time" and "ts" set, "utc-src" kept.
TEST_F(EventsPacketTest, LeavesTheReferenceAndTheTimeTextOutButKeepsTheSource) {
    EXPECT_EQ(rework(event(3, 0, R"(, "utc-time": "1500000000123", "utc-src": "web")")),
              R"({"event-type": "e", "utc-src": "web", "time": "2017-07-14T02:40:00.123Z", )"
              R"("ts": 1234})");
}

/// Text that is not JSON adds only the header.
TEST_F(EventsPacketTest, AddsOnlyTheHeaderForTextThatIsNoJson) {
    EventsPacket packet(kAmple);
    EXPECT_TRUE(packet.AddEvent("no json", kTime));
    EXPECT_FALSE(packet.IsEmpty());
    EXPECT_EQ(EventsPacketPeer::bootCount(packet), 0);
    EXPECT_EQ(EventsPacketPeer::standbyCount(packet), 0);
    EXPECT_EQ(eventsOf(EventsPacketPeer::text(packet)), ",\"events\":[");
}

/// A comma stands only between two events.
TEST_F(EventsPacketTest, PutsACommaOnlyBetweenTwoEvents) {
    EventsPacket packet(kAmple);
    EXPECT_TRUE(packet.AddEvent("no json", kTime));
    EXPECT_TRUE(packet.AddEvent(event(0, 0), kTime));
    EXPECT_TRUE(packet.AddEvent("no json", kTime));
    EXPECT_TRUE(packet.AddEvent(event(0, 0), kTime));
    EXPECT_TRUE(packet.AddEvent("no json", kTime));
    EXPECT_TRUE(packet.Send());
    const auto lines = sentLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(eventsOf(lines[0]), ",\"events\":[" + kReworked + "," + kReworked + "]}");
}

/// A piece fits up to two below the limit; a record has at most one character more.
TEST_F(EventsPacketTest, AcceptsAPieceUpToTwoBelowTheLimit) {
    EventsPacket ample(kAmple);
    ASSERT_TRUE(ample.AddEvent(event(3, 0), kTime));
    const int size = EventsPacketPeer::size(ample);
    EventsPacket justEnough(size + 2);
    EXPECT_TRUE(justEnough.AddEvent(event(3, 0), kTime));
    EventsPacket oneLess(size + 1);
    EXPECT_FALSE(oneLess.AddEvent(event(3, 0), kTime));
    EXPECT_TRUE(oneLess.IsEmpty());
}

/// A piece fits up to two below the limit; a record has at most one character more.
TEST_F(EventsPacketTest, SendsAtMostOneCharacterAboveTheLimit) {
    EventsPacket ample(kAmple);
    ASSERT_TRUE(ample.AddEvent(event(3, 0), kTime));
    const int limit = EventsPacketPeer::size(ample) + 2;
    EventsPacket packet(limit);
    ASSERT_TRUE(packet.AddEvent(event(3, 0), kTime));
    packet.Send();
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(records()[0].size(), static_cast<std::size_t>(limit) + 1);
}

/// An event that does not fit leaves the packet as it was.
TEST_F(EventsPacketTest, StaysAsItWasWhenAnEventDoesNotFit) {
    EventsPacket ample(kAmple);
    ASSERT_TRUE(ample.AddEvent(event(3, 0), kTime));
    EventsPacket packet(EventsPacketPeer::size(ample) + 2);
    ASSERT_TRUE(packet.AddEvent(event(3, 0), kTime));
    const std::string text = EventsPacketPeer::text(packet);
    EXPECT_FALSE(packet.AddEvent(event(3, 0), kTime));
    EXPECT_FALSE(packet.AddEvent(event(4, 1), kTime));
    EXPECT_EQ(EventsPacketPeer::text(packet), text);
    EXPECT_EQ(EventsPacketPeer::size(packet), static_cast<int>(text.size()));
    EXPECT_EQ(EventsPacketPeer::bootCount(packet), 3);
    EXPECT_EQ(EventsPacketPeer::standbyCount(packet), 0);
}

/// A piece fits up to two below the limit; a record has at most one character more.
TEST_F(EventsPacketTest, HoldsNothingWithoutRoom) {
    EventsPacket none(0);
    EXPECT_FALSE(none.AddEvent(event(3, 0), kTime));
    EventsPacket negative(-5);
    EXPECT_FALSE(negative.AddEvent(event(3, 0), kTime));
}

/// An event whose header cannot be packed is not added.
TEST_F(EventsPacketTest, RefusesAnEventWhoseHeaderCannotBePacked) {
    EventsPacket packet(kAmple);
    OutputCapture output;
    const NoJsonMemory noMemory;
    EXPECT_FALSE(packet.AddEvent(event(3, 0), kTime));
    output.stop();
    EXPECT_TRUE(packet.IsEmpty());
}

/// Nor is one that cannot be written; the packet stays as it was.
TEST_F(EventsPacketTest, RefusesAnEventThatCannotBeWrittenAndStaysAsItWas) {
    EventsPacket packet(kAmple);
    ASSERT_TRUE(packet.AddEvent(event(3, 0), kTime));
    const std::string before = EventsPacketPeer::text(packet);
    AwsWrapperImpl::SetVerbose(true);
    {
        const NoJsonMemoryFrom rework(" Rework Event ");
        EXPECT_FALSE(packet.AddEvent(event(3, 0, R"(, "value": 1.5)"), kTime));  // takes memory
        EXPECT_TRUE(rework.hasCome());
    }
    AwsWrapperImpl::SetVerbose(false);
    EXPECT_EQ(EventsPacketPeer::text(packet), before);
    EXPECT_TRUE(packet.AddEvent(event(3, 0), kTime));
    EXPECT_EQ(EventsPacketPeer::text(packet), before + "," + kReworked);
}

/// An empty packet sends nothing and is true; a refusal is false.
TEST_F(EventsPacketTest, SendsNothingWhenEmpty) {
    EventsPacket packet(kAmple);
    EXPECT_TRUE(packet.IsEmpty());
    EXPECT_TRUE(packet.Send());
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// An empty packet sends nothing and is true; a refusal is false.
TEST_F(EventsPacketTest, TellsThatTheStreamRefused) {
    script(refuse);
    EventsPacket packet(kAmple);
    packet.AddEvent(event(3, 0), kTime);
    OutputCapture output;
    EXPECT_FALSE(packet.Send());
}

/// Verbose, each step and the record are told; otherwise nothing is.
TEST_F(EventsPacketTest, DescribesEachStepWhenVerbose) {
    EventsPacket packet(kAmple);
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    packet.AddEvent(event(3, 0), kTime);
    packet.AddEvent(event(3, 0), kTime);
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivAWSWrapper:  Add " + event(3, 0) +
                  " to packet\n"
                  "kivAWSWrapper:  EventSessionHeader created \n"
                  "kivAWSWrapper:  Rework Event \n"
                  "kivAWSWrapper:  Checking buffersize \n"
                  "kivAWSWrapper:  Event Added to packet\n"
                  "kivAWSWrapper:  Add " +
                  event(3, 0) +
                  " to packet\n"
                  "kivAWSWrapper:  Rework Event \n"
                  "kivAWSWrapper:  Checking buffersize \n"
                  "kivAWSWrapper:  Event Added to packet\n");
}

/// Verbose, each step and the record are told; otherwise nothing is.
TEST_F(EventsPacketTest, ShowsTheRecordWhenVerbose) {
    EventsPacket packet(kAmple);
    packet.AddEvent(event(3, 0), kTime);
    const std::string record = EventsPacketPeer::text(packet) + "]}\n";
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    packet.Send();
    output.stop();
    EXPECT_NE(output.outWithoutPrefixes().find("kivAWSWrapper:  Sending eventpacket " + record +
                                               " to AWS\n"),
              std::string::npos)
        << output.outWithoutPrefixes();
}

/// Verbose, each step and the record are told; otherwise nothing is.
TEST_F(EventsPacketTest, IsSilentOtherwise) {
    EventsPacket packet(kAmple);
    OutputCapture output;
    packet.AddEvent(event(3, 0), kTime);
    packet.Send();
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}

// --- events that were parsed before --------------------------------------------------------------

/// An event that was parsed and timed before goes out byte for byte as its text does.
TEST_F(EventsPacketTest, MakesTheSameRecordOfParsedEventsAsOfTheirTexts) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 2, 0), 1500000000000);
    OutputCapture output;  // malformed times
    for (const int limit : {kAmple, 3000, 600}) {
        EventsPacket ofTexts(limit);
        EventsPacket ofParsed(limit);
        CycleTimes times(*timeManager);
        for (const std::string& text : oddEvents()) {
            std::string front = text;
            const std::int64_t time = EventTimeRework::reworkEventTime(front, true);
            JsonObject parsed = JsonObject::parse(text);
            EXPECT_EQ(EventTimeRework::reworkEventTime(parsed, text, true, times), time) << text;
            EXPECT_EQ(ofParsed.AddEvent(parsed, text, time, times), ofTexts.AddEvent(front, time))
                << text;
            EXPECT_EQ(timelessText(ofParsed), timelessText(ofTexts)) << text;
        }
        EXPECT_EQ(ofTexts.IsEmpty(), limit == 600);
    }
}

/// The headers of a packet ask for no time that its events asked for.
TEST_F(EventsPacketTest, AsksForTheTimesOfACycleOnceForAllItsBlocks) {
    CycleTimes times(*timeManager);
    EventsPacket packet(kAmple);
    const auto add = [&](int boot) {
        const std::string text = event(boot, 2);
        JsonObject parsed = JsonObject::parse(text);
        return packet.AddEvent(parsed, text, kTime, times);
    };
    EXPECT_TRUE(add(3) && add(7));
    TimeMgrImpl::SetVerbose(true);
    OutputCapture output;
    EXPECT_TRUE(add(3) && add(7) && add(3));
    output.stop();
    TimeMgrImpl::SetVerbose(false);
    EXPECT_EQ(output.outWithoutPrefixes().find("TimeMgr: getTime"), std::string::npos)
        << output.out();
}

/// Verbose, each step and the record are told; otherwise nothing is.
TEST_F(EventsPacketTest, ShowsTheTextOfAParsedEventWhenVerbose) {
    CycleTimes times(*timeManager);
    EventsPacket packet(kAmple);
    const std::string stored = event(3, 0);
    JsonObject parsed = JsonObject::parse(stored);
    parsed.set("utc-src", std::string("web"));
    const std::string now = parsed.dumpAsString();
    JsonObject none;
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    packet.AddEvent(parsed, stored, kTime, times);
    packet.AddEvent(none, "no json", kTime, times);
    output.stop();
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    EXPECT_EQ(lines.rfind("kivAWSWrapper:  Add " + now + " to packet\n", 0), 0u) << lines;
    EXPECT_NE(lines.find("\nkivAWSWrapper:  Add no json to packet\n"), std::string::npos) << lines;
}
