#include "NoNetwork.h"

#include <utility>

#include <cstddef>

namespace {

url_data s_answer;
std::string s_url;

/// Hands a text to libcurl's callback as libcurl does: with whatever ends it, and not in one piece.
template <typename Callback>
bool feed(Callback callback, std::string text, url_data& into) {
    constexpr std::size_t piece = 1000;
    for (std::size_t at = 0; at < text.size(); at += piece) {
        const std::size_t size = std::min(piece, text.size() - at);
        if (callback(text.data() + at, 1, size, &into) != size) return false;
    }
    return true;
}

}  // namespace

/// Stands where the linker puts `NetworkHelper::UrlRequest` (--wrap).
bool answerInstead(NetworkHelper* request, std::string url, bool deviceHeaders, std::string apiKey) asm(
    "__wrap__ZN13NetworkHelper10UrlRequestENSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEEbS5_");

bool answerInstead(NetworkHelper* request, std::string url, bool /*deviceHeaders*/,
                   std::string /*apiKey*/) {
    s_url = std::move(url);
    url_data& into = *request;
    into = url_data();
    if (s_answer.status == 0) return false;
    std::string date = "Date: " + s_answer.date + "\r\n";
    const std::size_t taken = NetworkHelper::headerCallback(date.data(), 1, date.size(), &into);
    if (taken != date.size()) return false;
    if (!feed(NetworkHelper::dataCallback, s_answer.data, into)) return false;
    into.status = s_answer.status;
    return true;
}

namespace fuzz {

void answerWith(const url_data& answer) {
    s_answer = answer;
}

const std::string& askedUrl() {
    return s_url;
}

}  // namespace fuzz
