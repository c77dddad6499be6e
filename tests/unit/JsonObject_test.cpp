#include "JsonObject.h"

#include "support/OutputCapture.h"
#include "support/TempDir.h"

#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

std::size_t references(const JsonObject& value) {
    return value.get()->refcount;
}

JsonObject member(const std::string& text, const char* key) {
    return JsonObject::parse(text).getObject(key);
}

JsonObject scalar(const std::string& text) {
    return JsonObject::parse(text, JSON_DECODE_ANY);
}

std::string printed(const std::string& text) {
    return scalar(text).getStringRep();
}

}  // namespace

// Ownership

/// A handle starts null.
TEST(JsonObject, StartsAsANullHandle) {
    const JsonObject value;
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(value.get(), nullptr);
}

/// Copies share the value and take a reference; the last one to go drops it.
TEST(JsonObject, SharesTheValueWhenCopied) {
    const JsonObject first = JsonObject::createObject();
    {
        const JsonObject second(first);
        EXPECT_EQ(second.get(), first.get());
        EXPECT_EQ(references(first), 2U);
    }
    EXPECT_EQ(references(first), 1U);
}

/// Assignment drops the old reference and takes one on the new value, also onto itself.
TEST(JsonObject, DropsItsReferenceWhenAssigned) {
    const JsonObject kept = JsonObject::createObject();
    const JsonObject other = JsonObject::createArray();
    JsonObject value(kept);
    ASSERT_EQ(references(kept), 2U);

    JsonObject& result = value = other;
    EXPECT_EQ(&result, &value);
    EXPECT_EQ(value.get(), other.get());
    EXPECT_EQ(references(kept), 1U);
    EXPECT_EQ(references(other), 2U);
}

/// Assignment drops the old reference and takes one on the new value, also onto itself.
TEST(JsonObject, SurvivesAssignmentToItself) {
    JsonObject value = JsonObject::parse(R"({"a": 1})");
    JsonObject& same = value;
    value = same;
    EXPECT_EQ(references(value), 1U);
    EXPECT_EQ(value.dumpAsString(), R"({"a": 1})");
}

/// A moved-from handle is null.
TEST(JsonObject, BecomesNullWhenMovedFrom) {
    JsonObject first = JsonObject::createObject();
    json_t* const raw = first.get();
    JsonObject second(std::move(first));
    EXPECT_EQ(second.get(), raw);
    EXPECT_EQ(references(second), 1U);
    EXPECT_TRUE(first.isNull());  // NOLINT: what the move leaves is the point

    JsonObject third = JsonObject::createArray();
    third = std::move(second);
    EXPECT_EQ(third.get(), raw);
    EXPECT_EQ(references(third), 1U);
    EXPECT_TRUE(second.isNull());  // NOLINT
}

/// Borrowed values get a reference of their own, new values do not.
TEST(JsonObject, TakesAReferenceOnAMemberAndNoneOnANewValue) {
    const JsonObject integer = JsonObject::createInteger(7);
    EXPECT_EQ(references(integer), 1U);

    const JsonObject object = JsonObject::parse(R"({"a": {"b": 1}})");
    const JsonObject inner = object.getObject("a");
    EXPECT_EQ(references(inner), 2U);
}

/// Borrowed values get a reference of their own, new values do not.
TEST(JsonObject, AdoptsTheCallersReferenceAndSharesABorrowedOne) {
    json_t* const raw = json_object();
    const JsonObject adopted = JsonObject::adopt(raw);
    EXPECT_EQ(references(adopted), 1U);
    const JsonObject shared = JsonObject::share(raw);
    EXPECT_EQ(references(adopted), 2U);
    EXPECT_TRUE(JsonObject::adopt(nullptr).isNull());
    EXPECT_TRUE(JsonObject::share(nullptr).isNull());
}

/// A member outlives the object it was taken from.
TEST(JsonObject, KeepsAMemberAliveAfterItsObject) {
    JsonObject object = JsonObject::parse(R"({"a": {"b": 1}})");
    const JsonObject inner = object.getObject("a");
    object = JsonObject();
    EXPECT_EQ(references(inner), 1U);
    EXPECT_EQ(inner.dumpAsString(), R"({"b": 1})");
}

/// Static values are never counted.
TEST(JsonObject, NeverCountsStaticValues) {
    json_t* const raw = json_true();
    {
        const JsonObject value = JsonObject::share(raw);
        const JsonObject copy(value);
        EXPECT_EQ(raw->refcount, static_cast<std::size_t>(-1));
    }
    EXPECT_EQ(raw->refcount, static_cast<std::size_t>(-1));
}

// Making values

/// Text parses to objects and arrays only, unless any value is asked for.
TEST(JsonObject, ParsesObjectsAndArraysOnlyUnlessAskedForAnyValue) {
    EXPECT_TRUE(JsonObject::parse("{}").isObject());
    EXPECT_TRUE(JsonObject::parse("[1]").isArray());
    EXPECT_TRUE(JsonObject::parse("5").isNull());
    EXPECT_TRUE(JsonObject::parse("5", JSON_DECODE_ANY).isInteger());
}

/// Text that does not parse, or nests too deeply, gives a null handle.
TEST(JsonObject, IsNullAfterTextThatDoesNotParse) {
    for (const char* text :
         {"", "{", "nonsense", "{} x", "{\"a\":}", "\xff", "{\"a\": \"\xc3\"}"}) {
        EXPECT_TRUE(JsonObject::parse(text).isNull()) << text;
    }
}

/// Text that does not parse, or nests too deeply, gives a null handle.
TEST(JsonObject, IsNullAfterTextThatIsNestedTooDeeply) {
    EXPECT_TRUE(JsonObject::parse(std::string(100000, '[')).isNull());
}

/// A file is loaded whole; missing, empty or broken files give a null handle.
TEST(JsonObject, LoadsAFile) {
    const TempDir dir;
    EXPECT_EQ(JsonObject::loadFile(dir.write("good", R"({"a": 1})")).dumpAsString(), R"({"a": 1})");
    EXPECT_TRUE(JsonObject::loadFile(dir.write("bad", R"({"a": )")).isNull());
    EXPECT_TRUE(JsonObject::loadFile(dir.write("empty", "")).isNull());
    EXPECT_TRUE(JsonObject::loadFile(dir.write("scalar", "5")).isNull());
    EXPECT_TRUE(JsonObject::loadFile(dir.file("scalar"), JSON_DECODE_ANY).isInteger());
    EXPECT_TRUE(JsonObject::loadFile(dir.file("missing")).isNull());
    EXPECT_TRUE(JsonObject::loadFile(dir.path()).isNull());
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    EXPECT_TRUE(JsonObject::loadFile(dir.file("pipe")).isNull()) << "nobody waits for a writer";
    EXPECT_TRUE(
        JsonObject::loadFile(dir.write("long", "[" + std::string(1048576, ' ') + "]")).isNull());
    EXPECT_TRUE(JsonObject::loadFile(dir.write("zero", std::string("{}\0", 3))).isNull());
    EXPECT_TRUE(JsonObject::loadFile("").isNull());
}

/// Integers are created with 64 bits.
TEST(JsonObject, CreatesIntegersOf64Bits) {
    EXPECT_EQ(JsonObject::createInteger(9223372036854775807LL).getStringRep(),
              "9223372036854775807");
    EXPECT_EQ(JsonObject::createInteger(-5).getStringRep(), "-5");
}

// Changing values

/// `set` shares the given value, or stores a string, and returns 0.
TEST(JsonObject, SetsAMemberToASharedValue) {
    JsonObject object = JsonObject::createObject();
    const JsonObject value = JsonObject::createArray();
    EXPECT_EQ(object.set("list", value), 0);
    EXPECT_EQ(references(value), 2U);
    EXPECT_EQ(object.getObject("list").get(), value.get());
    EXPECT_EQ(object.set("list", JsonObject::createInteger(1)), 0);
    EXPECT_EQ(references(value), 1U);
    EXPECT_EQ(object.dumpAsString(), R"({"list": 1})");
}

/// `set` shares the given value, or stores a string, and returns 0.
TEST(JsonObject, SetsAMemberToAString) {
    JsonObject object = JsonObject::createObject();
    EXPECT_EQ(object.set("name", std::string("va\"lue")), 0);
    EXPECT_EQ(object.dumpAsString(), R"({"name": "va\"lue"})");
}

/// A refused `set` returns non-zero and loses no reference.
TEST(JsonObject, RefusesToSetWithoutLosingReferences) {
    const JsonObject value = JsonObject::createArray();
    JsonObject none;
    EXPECT_NE(none.set("a", value), 0);
    EXPECT_NE(none.set("a", std::string("text")), 0);
    JsonObject array = JsonObject::createArray();
    EXPECT_NE(array.set("a", value), 0);
    EXPECT_EQ(references(value), 1U);

    JsonObject object = JsonObject::createObject();
    EXPECT_NE(object.set("a", JsonObject()), 0);
    EXPECT_NE(object.set("a", std::string("\xff")), 0);
    EXPECT_NE(object.set("a", object), 0);
    EXPECT_EQ(object.dumpAsString(), "{}");
    EXPECT_EQ(references(object), 1U);
}

/// `del` returns false when it deleted.
TEST(JsonObject, AnswersFalseForASuccessfulDeletion) {
    JsonObject object = JsonObject::parse(R"({"a": 1, "b": 2})");
    EXPECT_FALSE(object.del("a"));
    EXPECT_EQ(object.dumpAsString(), R"({"b": 2})");
}

/// `del` returns true when the key is missing or the value is not an object.
TEST(JsonObject, AnswersTrueForAFailedDeletion) {
    JsonObject object = JsonObject::parse(R"({"a": 1})");
    EXPECT_TRUE(object.del("missing"));
    EXPECT_EQ(object.dumpAsString(), R"({"a": 1})");
    EXPECT_TRUE(JsonObject().del("a"));
    EXPECT_TRUE(JsonObject::createArray().del("a"));
}

/// Elements are appended to arrays only.
TEST(JsonObject, AppendsToArraysOnly) {
    JsonObject array = JsonObject::createArray();
    const JsonObject value = JsonObject::parse("{}");
    EXPECT_EQ(array.append(value), 0);
    EXPECT_EQ(references(value), 2U);
    EXPECT_EQ(array.dumpAsString(), "[{}]");
    EXPECT_NE(JsonObject::createObject().append(value), 0);
    EXPECT_NE(JsonObject().append(value), 0);
    EXPECT_NE(array.append(JsonObject()), 0);
    EXPECT_EQ(references(value), 2U);
}

// Packing

/// `Pack` builds a value by its format, in the place of the old one.
TEST(JsonObject, PacksByFormat) {
    JsonObject value;
    EXPECT_TRUE(value.Pack("{s:s, s:i, s:I, s:b, s:n}", "text", "x", "int", 5, "large",
                           static_cast<json_int_t>(5000000000LL), "flag", 1, "none"));
    EXPECT_EQ(value.dumpAsString(),
              R"({"text": "x", "int": 5, "large": 5000000000, "flag": true, "none": null})");
    EXPECT_EQ(references(value), 1U);
}

/// `Pack` builds a value by its format, in the place of the old one.
TEST(JsonObject, DropsTheOldValueWhenPacking) {
    const JsonObject old = JsonObject::createArray();
    JsonObject value(old);
    EXPECT_TRUE(value.Pack("{}"));
    EXPECT_EQ(references(old), 1U);
    EXPECT_EQ(value.dumpAsString(), "{}");
}

/// `Pack` builds a value by its format, in the place of the old one.
TEST(JsonObject, PacksAValueAroundItself) {
    JsonObject value = JsonObject::parse(R"({"a": 1})");
    EXPECT_TRUE(value.Pack("{s:O}", "inner", value.get()));
    EXPECT_EQ(value.dumpAsString(), R"({"inner": {"a": 1}})");
    EXPECT_EQ(value.getObject("inner").get()->refcount, 2U);
}

/// A failed `Pack` returns false, leaves null and writes "Error in Pack: " with source, line,
/// column and text, without prefix.
TEST(JsonObject, ReportsAPackFormatThatEndsEarly) {
    JsonObject value = JsonObject::createArray();
    OutputCapture capture;
    EXPECT_FALSE(value.Pack("{s:s", "a", "b"));
    capture.stop();
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(capture.err(), "Error in Pack: <format>(1, 5): Unexpected end of format string\n");
    EXPECT_EQ(capture.out(), "");
}

/// A failed `Pack` returns false, leaves null and writes "Error in Pack: " with source, line,
/// column and text, without prefix.
TEST(JsonObject, ReportsAPackArgumentThatIsNoText) {
    JsonObject value;
    OutputCapture capture;
    EXPECT_FALSE(value.Pack("{s:s}", "a", "\xff"));
    capture.stop();
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(capture.err(), "Error in Pack: <args>(1, 4): Invalid UTF-8 string\n");
}

/// A failed `Pack` returns false, leaves null and writes "Error in Pack: " with source, line,
/// column and text, without prefix.
TEST(JsonObject, ReportsANullTextInPack) {
    JsonObject value;
    OutputCapture capture;
    EXPECT_FALSE(value.Pack("{s:s}", "a", static_cast<const char*>(nullptr)));
    capture.stop();
    EXPECT_EQ(capture.err(), "Error in Pack: <args>(1, 4): NULL string\n");
}

// Types

/// The type tests answer for each type, and false for a null handle; a real and an integer are
/// numbers.
TEST(JsonObject, TestsTypes) {
    const JsonObject all = JsonObject::parse(
        R"({"o": {}, "a": [], "s": "", "i": 1, "r": 1.5, "t": true, "f": false, "n": null})");
    struct Case {
        const char* key;
        bool object, array, text, integer, real, number, yes, null;
    };
    const Case cases[] = {
        {"o", true, false, false, false, false, false, false, false},
        {"a", false, true, false, false, false, false, false, false},
        {"s", false, false, true, false, false, false, false, false},
        {"i", false, false, false, true, false, true, false, false},
        {"r", false, false, false, false, true, true, false, false},
        {"t", false, false, false, false, false, false, true, false},
        {"f", false, false, false, false, false, false, false, false},
        {"n", false, false, false, false, false, false, false, true},
        {"missing", false, false, false, false, false, false, false, false},
    };
    for (const Case& c : cases) {
        const JsonObject value = all.getObject(c.key);
        EXPECT_EQ(value.isObject(), c.object) << c.key;
        EXPECT_EQ(value.isArray(), c.array) << c.key;
        EXPECT_EQ(value.isString(), c.text) << c.key;
        EXPECT_EQ(value.isInteger(), c.integer) << c.key;
        EXPECT_EQ(value.isReal(), c.real) << c.key;
        EXPECT_EQ(value.isNumber(), c.number) << c.key;
        EXPECT_EQ(value.isTrue(), c.yes) << c.key;
        EXPECT_EQ(value.isJsonNull(), c.null) << c.key;
    }
    EXPECT_TRUE(all.getObject("missing").isNull());
    EXPECT_FALSE(all.getObject("n").isNull());
}

/// Equality is by content; null handles equal nothing.
TEST(JsonObject, ComparesByContent) {
    EXPECT_TRUE(JsonObject::parse(R"({"a": [1], "b": 2})")
                    .equals(JsonObject::parse(R"({"b": 2, "a": [1]})")));
    EXPECT_FALSE(JsonObject::parse("[1]").equals(JsonObject::parse("[1.0]")));
    EXPECT_FALSE(JsonObject().equals(JsonObject()));
    EXPECT_FALSE(JsonObject().equals(JsonObject::createObject()));
}

// Text forms

/// `dumpAsString` writes objects and arrays with a blank after separators.
TEST(JsonObject, DumpsWithBlanksAfterSeparators) {
    EXPECT_EQ(JsonObject::parse(R"({"a":1,"b":[1,2],"c":{}})").dumpAsString(),
              R"({"a": 1, "b": [1, 2], "c": {}})");
}

/// `dumpAsString` of anything else is "(no json object)".
TEST(JsonObject, DumpsNothingButObjectsAndArrays) {
    for (const char* text : {"\"x\"", "5", "1.5", "true", "null"}) {
        EXPECT_EQ(scalar(text).dumpAsString(), "(no json object)") << text;
    }
    EXPECT_EQ(JsonObject().dumpAsString(), "(no json object)");
}

/// A dump that fails is "(invalid json string)".
TEST(JsonObject, SaysWhenDumpingFails) {
    JsonObject circle = JsonObject::createArray();
    JsonObject inner = JsonObject::createArray();
    ASSERT_EQ(circle.append(inner), 0);
    ASSERT_EQ(inner.append(circle), 0);
    EXPECT_EQ(circle.dumpAsString(), "(invalid json string)");
    EXPECT_EQ(circle.getStringRep(), "(invalid json string)");
    json_array_clear(inner.get());
}

/// The printable form of each type, with "(invalid json obj)", "(true)", "(false)", "(json
/// null)".
TEST(JsonObject, PrintsEachType) {
    EXPECT_EQ(JsonObject().getStringRep(), "(invalid json obj)");
    EXPECT_EQ(printed(R"({"a":1})"), R"({"a": 1})");
    EXPECT_EQ(printed("[1,2]"), "[1, 2]");
    EXPECT_EQ(printed("-9223372036854775808"), "-9223372036854775808");
    EXPECT_EQ(printed("1.5"), "1.5");
    EXPECT_EQ(printed("2.0"), "2");
    EXPECT_EQ(printed("1234567.0"), "1.23457e+06");
    EXPECT_EQ(printed(R"("te\"xt")"), "te\"xt");
    EXPECT_EQ(printed("true"), "(true)");
    EXPECT_EQ(printed("false"), "(false)");
    EXPECT_EQ(printed("null"), "(json null)");
}

/// A stream takes the printable form.
TEST(JsonObject, WritesItsPrintableFormIntoAStream) {
    std::ostringstream out;
    out << JsonObject::parse(R"({"a":true})") << scalar("\"x\"") << JsonObject();
    EXPECT_EQ(out.str(), R"({"a": true}x(invalid json obj))");
}

// Getters

/// `getAsString` of what is not a string is empty; what is not a number reads as 0.
TEST(JsonObject, GivesAnEmptyTextForAnythingThatIsNoString) {
    EXPECT_EQ(scalar("\"text\"").getAsString(), "text");
    for (const char* text : {"{}", "[]", "5", "1.5", "true", "null"}) {
        EXPECT_EQ(scalar(text).getAsString(), "") << text;
    }
    EXPECT_EQ(JsonObject().getAsString(), "");
}

/// `getAsString` of what is not a string is empty; what is not a number reads as 0.
TEST(JsonObject, GivesNumbersAsNumbers) {
    EXPECT_EQ(scalar("5").getAsInteger(), 5);
    EXPECT_EQ(scalar("5.5").getAsInteger(), 0);
    EXPECT_EQ(scalar("\"5\"").getAsInteger(), 0);
    EXPECT_EQ(JsonObject().getAsInteger(), 0);
    EXPECT_EQ(scalar("5").getAsNumber(), 5.0);
    EXPECT_EQ(scalar("5.5").getAsNumber(), 5.5);
    EXPECT_EQ(scalar("\"5\"").getAsNumber(), 0.0);
    EXPECT_EQ(JsonObject().getAsNumber(), 0.0);
}

/// An absent member is a null handle.
TEST(JsonObject, GivesANullHandleForAnAbsentMember) {
    EXPECT_TRUE(member("{}", "a").isNull());
    EXPECT_TRUE(member("[1]", "a").isNull());
    EXPECT_TRUE(JsonObject().getObject("a").isNull());
    EXPECT_EQ(member(R"({"a": 1})", "a").getStringRep(), "1");
}

/// `optInteger` gives the default for a member that is missing or not an integer.
TEST(JsonObject, GivesTheDefaultForAMemberThatIsNoInteger) {
    EXPECT_EQ(JsonObject::parse(R"({"x": 5000000000})").optInteger("x", 7), 5000000000LL);
    for (const char* text : {R"({"x": "3"})", R"({"x": 3.0})", R"({"x": null})", R"({"x": true})",
                             R"({"x": {}})", "{}", "[3]"}) {
        EXPECT_EQ(JsonObject::parse(text).optInteger("x", 7), 7) << text;
    }
    EXPECT_EQ(JsonObject().optInteger("x", 7), 7);
}

/// `optDouble` gives the default for an integer too.
TEST(JsonObject, DoesNotTakeAnIntegerForAReal) {
    EXPECT_EQ(JsonObject::parse(R"({"x": 2})").optDouble("x", 1.5), 1.5);
    EXPECT_EQ(JsonObject::parse(R"({"x": 2.0})").optDouble("x", 1.5), 2.0);
    EXPECT_EQ(JsonObject::parse(R"({"x": "2.0"})").optDouble("x", 1.5), 1.5);
    EXPECT_EQ(JsonObject::parse("{}").optDouble("x", 1.5), 1.5);
    EXPECT_EQ(JsonObject().optDouble("x", 1.5), 1.5);
}

/// `optString` gives the empty text or a copy of the default.
TEST(JsonObject, GivesAnEmptyTextOrTheDefaultForAMemberThatIsNoString) {
    std::string def = "default";
    EXPECT_EQ(JsonObject::parse(R"({"x": "text"})").optString("x"), "text");
    EXPECT_EQ(JsonObject::parse(R"({"x": "text"})").optString("x", def), "text");
    EXPECT_EQ(JsonObject::parse(R"({"x": ""})").optString("x", def), "");
    for (const char* text : {R"({"x": 3})", R"({"x": null})", R"({"x": {}})", "{}", "[]"}) {
        EXPECT_EQ(JsonObject::parse(text).optString("x"), "") << text;
        EXPECT_EQ(JsonObject::parse(text).optString("x", def), "default") << text;
    }
    EXPECT_EQ(JsonObject().optString("x"), "");
    EXPECT_EQ(JsonObject().optString("x", def), "default");
    EXPECT_EQ(def, "default");
}

/// The array size is 0 for what is not an array.
TEST(JsonObject, CountsTheElementsOfArraysOnly) {
    EXPECT_EQ(JsonObject::parse("[1, 2, 3]").getArraySize(), 3U);
    EXPECT_EQ(JsonObject::parse(R"({"a": 1})").getArraySize(), 0U);
    EXPECT_EQ(JsonObject().getArraySize(), 0U);
}
