#pragma once

#include <string>
#include <utility>
#include <vector>

/// One country or territory, and the table of them: ISO 3166-1, current and withdrawn codes, and
/// codes reserved outside the assigned set. Immutable, ready before `main`; any thread.
class CountryCode {
  public:
    CountryCode(std::string countryName, std::string biLetter, std::string triLetter, int number,
                std::string continentCode)
        : name(std::move(countryName)),
          alpha2(std::move(biLetter)),
          alpha3(std::move(triLetter)),
          numeric(number),
          continent(std::move(continentCode)) {}

    std::string name;
    std::string alpha2;     ///< two letters
    std::string alpha3;     ///< three letters, "" where none
    int numeric;            ///< ISO 3166-1 numeric, -1 where none
    std::string continent;  ///< "AF", "AN", "AS", "EU", "NA", "OC" or "SA"; "" where none

    /// By alpha2 or alpha3, by the length of `code`; without `exact` in upper case. Null when
    /// there is none. The record lives as long as the program.
    static const CountryCode* getByCode(std::string code, bool exact);
    static const CountryCode* getByBiLetter(const std::string& code);
    static const CountryCode* getByTriLetter(const std::string& code);
    static const CountryCode* getByName(const std::string& countryName);

    /// The 268 rows in the order of the two-letter codes.
    static const std::vector<CountryCode> values;
};
