#include "CountryCode.h"

#include "JsonArrayIterator.h"
#include "JsonObject.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// ISO 3166-1 as the package iso-codes (Debian, Fedora) installs it, and the zones of tzdata.
constexpr char kIsoFile[] = "/usr/share/iso-codes/json/iso_3166-1.json";
constexpr char kZoneFile[] = "/usr/share/zoneinfo/zone.tab";

struct Row {
    std::string name;
    std::string alpha2;
    std::string alpha3;
    int numeric;
    std::string continent;
};

bool operator==(const Row& a, const Row& b) {
    return a.name == b.name && a.alpha2 == b.alpha2 && a.alpha3 == b.alpha3 &&
           a.numeric == b.numeric && a.continent == b.continent;
}

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.alpha2 << "/" << row.alpha3 << "/" << row.numeric << "/" << row.continent << "/"
         << row.name;
}

Row rowOf(const std::string& alpha2) {
    const CountryCode* found = CountryCode::getByBiLetter(alpha2);
    if (found == nullptr) return {};
    return {found->name, found->alpha2, found->alpha3, found->numeric, found->continent};
}

/// The rows that ISO 3166-1 does not have: reserved codes and withdrawn ones.
const std::vector<Row>& rowsBesideTheStandard() {
    static const std::vector<Row> rows = {
        {"Ascension Island", "AC", "ASC", -1, "AF"},
        {"Netherlands Antilles", "AN", "ANT", 530, "NA"},
        {"Burma", "BU", "BUR", 104, "AS"},
        {"Clipperton Island", "CP", "CPT", -1, "NA"},
        {"Serbia and Montenegro", "CS", "SCG", 891, "EU"},
        {"Diego Garcia", "DG", "DGA", -1, "AS"},
        {"Ceuta, Melilla", "EA", "", -1, "AF"},
        {"European Union", "EU", "", -1, "EU"},
        {"France, Metropolitan", "FX", "FXX", 249, "EU"},
        {"Canary Islands", "IC", "", -1, "AF"},
        {"Neutral Zone", "NT", "NTZ", 536, ""},
        {"Finland", "SF", "FIN", 246, "EU"},
        {"USSR", "SU", "SUN", 810, "EU"},
        {"Tristan da Cunha", "TA", "TAA", -1, "AF"},
        {"East Timor", "TP", "TMP", 626, "AS"},
        {"United Kingdom", "UK", "", 826, "EU"},
        {"Kosovo, Republic of", "XK", "XXK", -1, "EU"},
        {"Yugoslavia", "YU", "YUG", 890, "EU"},
        {"Zaire", "ZR", "ZAR", 180, "AF"},
    };
    return rows;
}

/// Regions of the time zones of each country: "BE" -> {"Europe"}.
std::map<std::string, std::set<std::string>> zoneRegions() {
    std::map<std::string, std::set<std::string>> regions;
    std::ifstream file(kZoneFile);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string code, coordinates, zone;
        fields >> code >> coordinates >> zone;
        regions[code].insert(zone.substr(0, zone.find('/')));
    }
    return regions;
}

/// Zone regions that are continents. "America" is two and is told apart below; the oceans tell
/// nothing, except that the Pacific's islands are Oceania's.
const std::map<std::string, std::string> kContinentOfRegion = {
    {"Africa", "AF"}, {"Antarctica", "AN"}, {"Arctic", "EU"},  {"Asia", "AS"},
    {"Europe", "EU"}, {"Australia", "OC"},  {"Pacific", "OC"},
};

const std::set<std::string> kSouthAmerica = {"AR", "BO", "BR", "CL", "CO", "EC", "FK",
                                             "GF", "GY", "PE", "PY", "SR", "UY", "VE"};

/// Where the zones do not tell: islands of the oceans, countries with zones in several regions,
/// and Turkey, most of which is in Asia while its zone is not.
const std::map<std::string, std::string> kByGeography = {
    {"AU", "OC"}, {"BM", "NA"}, {"BV", "AN"}, {"CA", "NA"}, {"CC", "AS"}, {"CL", "SA"},
    {"CV", "AF"}, {"CX", "AS"}, {"CY", "AS"}, {"EC", "SA"}, {"ES", "EU"}, {"FK", "SA"},
    {"FO", "EU"}, {"GS", "AN"}, {"HM", "AN"}, {"IO", "AS"}, {"IS", "EU"}, {"KM", "AF"},
    {"MG", "AF"}, {"MU", "AF"}, {"MV", "AS"}, {"PT", "EU"}, {"RE", "AF"}, {"RU", "EU"},
    {"SC", "AF"}, {"SH", "AF"}, {"TF", "AN"}, {"TR", "AS"}, {"US", "NA"}, {"YT", "AF"},
};

std::string continentByZones(const std::string& code, const std::set<std::string>& regions) {
    const auto listed = kByGeography.find(code);
    if (listed != kByGeography.end()) return listed->second;
    if (regions.size() != 1) return "several regions";
    if (*regions.begin() == "America") return kSouthAmerica.count(code) != 0 ? "SA" : "NA";
    const auto region = kContinentOfRegion.find(*regions.begin());
    return region != kContinentOfRegion.end() ? region->second : "an ocean";
}

/// The table has 268 rows, from "AC" on, rising by two-letter code.
TEST(CountryCodeTable, HasTwoHundredAndSixtyEightRows) {
    EXPECT_EQ(CountryCode::values.size(), 268u);
}

/// The table has 268 rows, from "AC" on, rising by two-letter code.
TEST(CountryCodeTable, BeginsWithAscensionIslandAndRisesByTwoLetterCode) {
    EXPECT_EQ(CountryCode::values.front().alpha2, "AC");
    EXPECT_EQ(CountryCode::values.back().alpha2, "ZW");
    for (std::size_t i = 1; i < CountryCode::values.size(); ++i)
        EXPECT_LT(CountryCode::values[i - 1].alpha2, CountryCode::values[i].alpha2);
}

/// It holds every row of ISO 3166-1 and the reserved and withdrawn codes, and nothing else.
TEST(CountryCodeTable, HoldsEveryRowOfTheStandardWithItsCodesNumberAndName) {
    const JsonObject file = JsonObject::loadFile(kIsoFile);
    ASSERT_TRUE(file.isObject()) << "this test needs the package iso-codes: " << kIsoFile;
    int rows = 0;
    for (JsonArrayIterator entry(file.getObject("3166-1")); entry; ++entry) {
        const JsonObject iso = entry.current();
        const std::string alpha2 = iso.optString("alpha_2");
        const Row row = rowOf(alpha2);
        SCOPED_TRACE(alpha2);
        std::string name = iso.optString("name");
        name = iso.optString("common_name", name);
        EXPECT_EQ(row.name, name);
        EXPECT_EQ(row.alpha3, alpha2 == "UM" ? "" : iso.optString("alpha_3"));
        EXPECT_EQ(row.numeric, std::stoi(iso.optString("numeric")));
        ++rows;
    }
    EXPECT_EQ(rows, 249);
}

/// It holds every row of ISO 3166-1 and the reserved and withdrawn codes, and nothing else.
TEST(CountryCodeTable, HoldsTheReservedAndWithdrawnCodes) {
    for (const Row& row : rowsBesideTheStandard()) EXPECT_EQ(rowOf(row.alpha2), row);
}

/// It holds every row of ISO 3166-1 and the reserved and withdrawn codes, and nothing else.
TEST(CountryCodeTable, HoldsNothingElse) {
    const JsonObject file = JsonObject::loadFile(kIsoFile);
    ASSERT_TRUE(file.isObject()) << "this test needs the package iso-codes: " << kIsoFile;
    std::set<std::string> expected;
    for (JsonArrayIterator entry(file.getObject("3166-1")); entry; ++entry)
        expected.insert(entry.current().optString("alpha_2"));
    for (const Row& row : rowsBesideTheStandard()) expected.insert(row.alpha2);
    std::set<std::string> held;
    for (const CountryCode& row : CountryCode::values) held.insert(row.alpha2);
    EXPECT_EQ(held, expected);
}

/// Eight rows have no number; "UM" has no three-letter code.
TEST(CountryCodeTable, GivesTheOutlyingIslandsNoThreeLetterCode) {
    EXPECT_EQ(rowOf("UM"), (Row{"United States Minor Outlying Islands", "UM", "", 581, "OC"}));
}

/// Eight rows have no number; "UM" has no three-letter code.
TEST(CountryCodeTable, HasNoNumberForExactlyTheEightCodesWithoutOne) {
    std::set<std::string> withoutNumber;
    for (const CountryCode& row : CountryCode::values) {
        if (row.numeric == -1)
            withoutNumber.insert(row.alpha2);
        else
            EXPECT_TRUE(row.numeric > 0 && row.numeric < 1000) << row.alpha2;
    }
    EXPECT_EQ(withoutNumber,
              (std::set<std::string>{"AC", "CP", "DG", "EA", "EU", "IC", "TA", "XK"}));
}

/// Eight rows have no number; "UM" has no three-letter code.
TEST(CountryCodeTable, HasCapitalLettersOfTheRightCountInEveryRow) {
    const auto isCapitals = [](const std::string& text) {
        return std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    };
    for (const CountryCode& row : CountryCode::values) {
        SCOPED_TRACE(row.alpha2);
        EXPECT_FALSE(row.name.empty());
        EXPECT_EQ(row.alpha2.size(), 2u);
        EXPECT_TRUE(row.alpha3.empty() || row.alpha3.size() == 3u);
        EXPECT_TRUE(isCapitals(row.alpha2 + row.alpha3));
    }
}

/// Every country is on its continent.
TEST(CountryCodeTable, PutsEveryCountryOnTheContinentOfItsTimeZones) {
    const auto regions = zoneRegions();
    ASSERT_GT(regions.size(), 240u) << "this test needs the package tzdata: " << kZoneFile;
    int checked = 0;
    for (const auto& [code, ofCode] : regions) {
        EXPECT_EQ(rowOf(code).continent, continentByZones(code, ofCode)) << code;
        ++checked;
    }
    EXPECT_GT(checked, 240);
}

/// Every country is on its continent.
TEST(CountryCodeTable, PutsThePlacesWithoutOwnTimeZoneWhereTheyAre) {
    const auto regions = zoneRegions();
    for (const CountryCode& row : CountryCode::values) {
        if (regions.count(row.alpha2) != 0) continue;
        const auto listed = kByGeography.find(row.alpha2);
        if (listed != kByGeography.end()) {
            EXPECT_EQ(row.continent, listed->second) << row.alpha2;
            continue;
        }
        const auto& others = rowsBesideTheStandard();
        EXPECT_TRUE(std::any_of(others.begin(), others.end(), [&](const Row& other) {
            return other.alpha2 == row.alpha2 && other.continent == row.continent;
        })) << row.alpha2;
    }
}

/// Every country is on its continent.
TEST(CountryCodeTable, PutsTheCountriesThatTheZonesDoNotTellWhereTheyAre) {
    for (const auto& [code, continent] : kByGeography)
        EXPECT_EQ(rowOf(code).continent, continent) << code;
    for (const std::string& code : kSouthAmerica) EXPECT_EQ(rowOf(code).continent, "SA") << code;
}

/// Codes of two and three letters are found, in any case unless exact.
TEST(CountryCodeLookup, FindsATwoLetterCodeInAnyCaseUnlessItMustBeExact) {
    ASSERT_NE(CountryCode::getByCode("be", false), nullptr);
    EXPECT_EQ(CountryCode::getByCode("be", false)->name, "Belgium");
    EXPECT_EQ(CountryCode::getByCode("bE", false), CountryCode::getByCode("BE", true));
    EXPECT_EQ(CountryCode::getByCode("be", true), nullptr);
}

/// Codes of two and three letters are found, in any case unless exact.
TEST(CountryCodeLookup, FindsAThreeLetterCode) {
    ASSERT_NE(CountryCode::getByCode("BEL", true), nullptr);
    EXPECT_EQ(CountryCode::getByCode("BEL", true)->name, "Belgium");
    EXPECT_EQ(CountryCode::getByCode("bel", false), CountryCode::getByCode("BEL", true));
    EXPECT_EQ(CountryCode::getByCode("bel", true), nullptr);
}

/// Codes of any other length, and unknown ones, find nothing.
TEST(CountryCodeLookup, FindsNothingForCodesOfAnyOtherLength) {
    for (const bool exact : {true, false}) {
        EXPECT_EQ(CountryCode::getByCode("", exact), nullptr);
        EXPECT_EQ(CountryCode::getByCode("B", exact), nullptr);
        EXPECT_EQ(CountryCode::getByCode("BELG", exact), nullptr);
        EXPECT_EQ(CountryCode::getByCode(std::string(100000, 'A'), exact), nullptr);
    }
}

/// Codes of any other length, and unknown ones, find nothing.
TEST(CountryCodeLookup, FindsNothingForUnknownCodes) {
    EXPECT_EQ(CountryCode::getByCode("XX", false), nullptr);
    EXPECT_EQ(CountryCode::getByCode("QQQ", false), nullptr);
    EXPECT_EQ(CountryCode::getByCode("\xff\xfe", false), nullptr);
    EXPECT_EQ(CountryCode::getByCode(std::string("B\0", 2), false), nullptr);
}

/// The lookups by one field mind the case and give the first row that answers.
TEST(CountryCodeLookup, TakesTheFieldAsAskedAndItsCaseAsGiven) {
    EXPECT_EQ(CountryCode::getByBiLetter("BE")->alpha3, "BEL");
    EXPECT_EQ(CountryCode::getByBiLetter("BEL"), nullptr);
    EXPECT_EQ(CountryCode::getByBiLetter("be"), nullptr);
    EXPECT_EQ(CountryCode::getByTriLetter("BEL")->alpha2, "BE");
    EXPECT_EQ(CountryCode::getByTriLetter("BE"), nullptr);
    EXPECT_EQ(CountryCode::getByTriLetter("bel"), nullptr);
    EXPECT_EQ(CountryCode::getByName("Belgium")->alpha2, "BE");
    EXPECT_EQ(CountryCode::getByName("belgium"), nullptr);
    EXPECT_EQ(CountryCode::getByName("BE"), nullptr);
    EXPECT_EQ(CountryCode::getByName(""), nullptr);
}

/// The lookups by one field mind the case and give the first row that answers.
TEST(CountryCodeLookup, GivesTheFirstOfSeveralRowsThatAnswer) {
    EXPECT_EQ(CountryCode::getByName("Finland")->alpha2, "FI");
    EXPECT_EQ(CountryCode::getByName("United Kingdom")->alpha2, "GB");
    EXPECT_EQ(CountryCode::getByTriLetter("FIN")->alpha2, "FI");
    EXPECT_EQ(CountryCode::getByTriLetter("")->alpha2, "EA");
    EXPECT_EQ(CountryCode::getByCode("uk", false)->numeric, 826);
}

/// The lookups by one field mind the case and give the first row that answers.
TEST(CountryCodeLookup, HandsOutTheRowsOfTheTableThemselves) {
    for (const CountryCode& row : CountryCode::values) {
        EXPECT_EQ(CountryCode::getByBiLetter(row.alpha2), &row);
        EXPECT_EQ(CountryCode::getByCode(row.alpha2, true), &row);
    }
}

}  // namespace
