#include "JsonText.h"

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

namespace {

struct Release {
    void operator()(json_t* value) const { json_decref(value); }
};
using Owned = std::unique_ptr<json_t, Release>;

/// As jansson alone reads it.
Owned reference(const std::string& text) {
    return Owned(json_loads(text.c_str(), 0, nullptr));
}

/// As jansson alone writes it; "(refused)" where it does not.
std::string reference(json_t* value) {
    char* const text = json_dumps(value, 0);
    const std::string copy = text != nullptr ? text : "(refused)";
    std::free(text);
    return copy;
}

std::string written(json_t* value) {
    std::string text = "left over";
    return JsonText::write(value, text) ? text : "(refused)";
}

/// What `text` is read as, written again by jansson; "(refused)" where it does not parse.
std::string readBack(const std::string& text) {
    const Owned value(JsonText::read(text.c_str()));
    return value ? reference(value.get()) : "(refused)";
}

std::string expected(const std::string& text) {
    const Owned value = reference(text);
    return value ? reference(value.get()) : "(refused)";
}

std::string nested(int levels) {
    const auto count = static_cast<std::size_t>(levels);
    return std::string(count, '[') + std::string(count, ']');
}

/// Texts of all kinds; each is an element of an array below.
const std::vector<std::string>& elements() {
    static const std::vector<std::string> all = {
        R"({})",
        R"([])",
        R"({ })",
        R"([ ])",
        R"({"a": 1})",
        R"({"a":1,"b":[1,2,{"c":"d"}]})",
        R"({"b":1,"a":2,"b":3})",
        R"({"":""})",
        R"([[],{},[{}]])",
        "{\"a\"\t:\r\n 1 , \"b\":2}",
        // texts
        R"("")",
        R"("plain text, 'quoted'")",
        R"("a\"b\\c\/d\b\f\n\r\t")",
        R"("\u0041\u00e9\u20ac")",
        R"("\ud83d\ude00")",
        R"("\ud83d")",
        R"("\ude00")",
        R"("\u0000")",
        R"("\x")",
        R"("\u12")",
        R"("\\")",
        R"("\\\"")",
        R"("open)",
        R"("open\")",
        "\"caf\xc3\xa9\"",
        "\"\xe2\x82\xac\"",
        "\"\xf0\x9f\x98\x80\"",
        "\"\xc3\"",
        "\"\xc0\x80\"",
        "\"\xed\xa0\x80\"",
        "\"\xff\"",
        "\"\x7f\"",
        "\"a\nb\"",
        "\"\x01\"",
        R"({"\u0061":1})",
        R"({"a\"b":1,"\u0001":2})",
        "{\"caf\xc3\xa9\":1}",
        "{\"\xff\":1}",
        R"({"a\u0000b":1})",
        R"({"a":1,"\u0061":2})",
        std::string("\"") + std::string(5000, 'x') + "\"",
        // numbers
        "0",
        "-0",
        "1",
        "-1",
        "01",
        "-01",
        "00",
        "-",
        "+1",
        ".5",
        "1.",
        "1.5",
        "-1.5e3",
        "1e2",
        "1E-2",
        "1e",
        "1e400",
        "-1e400",
        "1e-400",
        "0.1",
        "123456789.125",
        "5e-324",
        "0.0",
        "-0.0",
        "2147483648",
        "-2147483649",
        "999999999999999999",
        "-999999999999999999",
        "1000000000000000000",
        "9223372036854775807",
        "9223372036854775808",
        "-9223372036854775808",
        "-9223372036854775809",
        "99999999999999999999999",
        "1-2",
        "1x",
        "0x10",
        "1 2",
        "Infinity",
        "NaN",
        // literals and what is none
        "true",
        "false",
        "null",
        "True",
        "tru",
        "truex",
        "nullnull",
        "true1",
        "nul",
        "x",
        "'a'",
        "{",
        "[",
        "}",
        "]",
        "{\"a\"}",
        "{\"a\":}",
        "{\"a\":1,}",
        "{,}",
        "{a:1}",
        "{1:2}",
        "{\"a\" 1}",
        "{\"a\":1 \"b\":2}",
        "[1,]",
        "[,1]",
        "[1 2]",
        "[1}",
        "{\"a\":1]",
        ",",
        ":",
        "/* a */ 1",
        "// a",
        nested(5),
        nested(31),
        nested(32),
        nested(33),
        nested(100),
        nested(2047),
        nested(2049),
    };
    return all;
}

std::vector<std::string> texts() {
    std::vector<std::string> all = {
        "",      " ",    "\t\r\n", "\xef\xbb\xbf{}",        "{}x",
        "{} {}", "[] ]", "\v{}",   std::string("{}\0x", 4), std::string("{\"a\0\":1}", 8)};
    for (const std::string& element : elements()) {
        all.push_back(element);
        all.push_back(" \n" + element + "\t ");
        all.push_back("[" + element + "]");
        all.push_back("[1, " + element + " ,\"z\"]");
        all.push_back("{\"before\": {\"k\":" + element + "}, \"after\":[true]}");
    }
    return all;
}

}  // namespace

/// Each text is read as jansson reads it, or refused as jansson refuses it.
TEST(JsonText, ReadsAsJanssonDoes) {
    for (const std::string& text : texts()) {
        const Owned value(JsonText::read(text.c_str()));
        const Owned same = reference(text);
        ASSERT_EQ(value == nullptr, same == nullptr) << text;
        if (!value) continue;
        EXPECT_TRUE(json_equal(value.get(), same.get())) << text;
        EXPECT_EQ(reference(value.get()), reference(same.get())) << "the order, too: " << text;
    }
}

/// Each value is written as jansson writes it.
TEST(JsonText, WritesAsJanssonDoes) {
    std::size_t count = 0;
    for (const std::string& text : texts()) {
        const Owned value = reference(text);
        if (!value) continue;
        EXPECT_EQ(written(value.get()), reference(value.get())) << text;
        ++count;
    }
    EXPECT_GT(count, 200u);
}

/// Texts that are damaged anywhere are read, or refused, as jansson does.
TEST(JsonText, ReadsDamagedTextsAsJanssonDoes) {
    const std::vector<std::string> seeds = {
        R"({"event-type": "usage.epg", "data": {"n": 17, "ok": true, "no": null, "x": [1, -2.5]}})",
        R"({"a": "caf\u00e9 \"x\" \\", "b": {"c": [[], {}, "d"], "e": false}, "f": 123456789012})",
    };
    const std::string bytes = "{}[]\":,\\ \n0123456789-+.eEtrufalsn/'\x01\x7f\x80\xc3\xa9\xff";
    std::mt19937 dice(20190307);
    const auto below = [&dice](std::size_t bound) { return dice() % bound; };
    int refused = 0;
    int read = 0;
    for (int round = 0; round < 40000; ++round) {
        std::string text = seeds[below(seeds.size())];
        for (std::size_t change = 1 + below(3); change > 0; --change) {
            const std::size_t at = below(text.size());
            const char byte = bytes[below(bytes.size())];
            switch (below(4)) {
                case 0:
                    text[at] = byte;
                    break;
                case 1:
                    text.insert(at, 1, byte);
                    break;
                case 2:
                    text.erase(at, 1);
                    break;
                default:
                    text.insert(at, text.substr(below(text.size()), below(12)));
            }
        }
        const std::string same = expected(text);
        ASSERT_EQ(readBack(text), same) << text;
        ++(same == "(refused)" ? refused : read);
    }
    EXPECT_GT(refused, 1000);
    EXPECT_GT(read, 1000);
}

/// A text that is cut off anywhere does not parse, and nothing beyond its end is looked at.
TEST(JsonText, RefusesEveryTextThatIsCutOff) {
    const std::string whole =
        R"({"a": "b", "c\n": [1, -2, 3.5, true, null, {"caf\u00e9": "\"x\\"}], "d": {}})";
    ASSERT_NE(readBack(whole), "(refused)");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const auto exact = std::make_unique<char[]>(size + 1);  // a sanitizer sees its end
        whole.copy(exact.get(), size);
        EXPECT_EQ(JsonText::read(exact.get()), nullptr) << whole.substr(0, size);
    }
}

/// Each character is read and written as jansson does, at each place of a word of the machine.
TEST(JsonText, KnowsEachCharacterAtEachPlace) {
    for (int byte = 1; byte < 256; ++byte) {
        for (std::size_t size = 1; size < 20; ++size) {
            for (std::size_t at = 0; at < size; ++at) {
                std::string text(size, at % 2 == 0 ? 'x' : '~');
                text[at] = static_cast<char>(byte);
                const std::string whole = "[\"" + text + "\"]";
                ASSERT_EQ(readBack(whole), expected(whole)) << whole;
                const Owned value(json_pack("[o]", json_string_nocheck(text.c_str())));
                ASSERT_EQ(written(value.get()), reference(value.get())) << whole;
            }
        }
    }
}

/// The caller's reference on what is read is the only one.
TEST(JsonText, HandsOverTheOnlyReference) {
    const Owned value(JsonText::read(R"({"a": {"b": "c"}})"));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->refcount, 1u);
    EXPECT_EQ(json_object_get(value.get(), "a")->refcount, 1u);
}

/// What jansson cannot write is refused: a text that is not UTF-8, a value that contains itself, no
/// value at all.
TEST(JsonText, RefusesWhatJanssonCannotWrite) {
    const Owned odd(json_object());
    json_object_set_new(odd.get(), "a", json_string_nocheck("\xff"));
    EXPECT_EQ(reference(odd.get()), "(refused)");
    EXPECT_EQ(written(odd.get()), "(refused)");

    const Owned oddKey(json_object());
    json_object_set_new_nocheck(oddKey.get(), "\xff", json_true());
    EXPECT_EQ(written(oddKey.get()), reference(oddKey.get())) << "whatever it makes of that";

    const Owned outer(json_object());
    json_t* const inner = json_object();
    json_object_set_new(outer.get(), "inner", inner);
    json_object_set(inner, "outer", outer.get());
    EXPECT_EQ(reference(outer.get()), "(refused)");
    EXPECT_EQ(written(outer.get()), "(refused)");
    json_object_del(inner, "outer");
    EXPECT_EQ(written(outer.get()), R"({"inner": {}})");

    std::string text;
    EXPECT_FALSE(JsonText::write(nullptr, text));
}

/// A value that stands in two places is written in both.
TEST(JsonText, WritesASharedValueTwice) {
    const Owned array(json_array());
    const Owned shared(json_pack("{s:i}", "a", 1));
    json_array_append(array.get(), shared.get());
    json_array_append(array.get(), shared.get());
    EXPECT_EQ(written(array.get()), R"([{"a": 1}, {"a": 1}])");
}

/// NUL characters in a text are written as jansson does.
TEST(JsonText, WritesNulCharactersAsJanssonDoes) {
    const Owned array(json_array());
    json_array_append_new(array.get(), json_stringn("a\0b", 3));
    EXPECT_EQ(written(array.get()), R"(["a\u0000b"])");
}
