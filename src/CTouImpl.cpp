#include "CTouImpl.h"

#include "AtomicFile.h"
#include "ClassLog.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "NetworkHelper.h"
#include "RegularFile.h"
#include "ServiceTables.h"
#include "Status.h"

#include <iterator>
#include <limits>
#include <sstream>
#include <vector>

#include <cerrno>
#include <cstdlib>

#include <unistd.h>

namespace {

ClassLog s_log("TOU:");

const char* const kConsentFile = "current_tou.txt";
const char* const kAnnouncementFile = "show_new_tou.txt";
const char* const kServerAnswerFile = "tou_server_answer.txt";

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

/// The whole word as a 32-bit integer; 0 when it is not one.
std::int32_t toInt32(const std::string& word) {
    using Limits = std::numeric_limits<std::int32_t>;
    char* end = nullptr;
    const long long value = std::strtoll(word.c_str(), &end, 10);
    const bool inRange = value >= Limits::min() && value <= Limits::max();
    const bool whole = end != word.c_str() && end == word.c_str() + word.size();
    return inRange && whole ? static_cast<std::int32_t>(value) : 0;
}

/// The server's answer as an object; a null handle, with an error line, when there is none.
JsonObject takeAnswer(const NetworkHelper& request) {
    JsonObject answer = JsonObject::parse(request.data);
    const std::string refusal = answer.optString("errorMessage");
    if (!refusal.empty()) {
        s_log.error("ToU server error: ", ClassLog::foreign(refusal));
        return JsonObject();
    }
    if (!request.isGoodAnswer()) return JsonObject();  // the request has its line
    if (answer.isNull()) {
        s_log.error("ToU server answer is no JSON: ", ClassLog::foreign(request.data));
    }
    return answer;
}

}  // namespace

void CTouImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool CTouImpl::GetVerbose() {
    return s_log.isVerbose();
}

void CTouImpl::Load(const std::string& directory) {
    const std::lock_guard<std::mutex> lock(m_loadMutex);
    m_directory = directory;
    read();
}

bool CTouImpl::ReLoad() {
    const std::lock_guard<std::mutex> lock(m_loadMutex);
    if (!m_fileExists) read();
    return m_fileExists;
}

bool CTouImpl::allowsCollection() {
    const auto leftAlone = [this] {
        return KernelTime::getTimeMonotonicAsInt64() - m_readKernelMs < kReadAgainMs;
    };
    if (isUnreadable() && !leftAlone()) {
        // Where another thread reads already this one does not wait for the disk.
        const std::unique_lock<std::mutex> lock(m_loadMutex, std::try_to_lock);
        if (lock.owns_lock() && isUnreadable()) read();
    }
    const Answer answer = m_answer;
    return answer == Answer::Yes || answer == Answer::None;
}

// --- reading, with m_loadMutex held ---------------------------------------------------------

void CTouImpl::read() {
    m_accepted = false;
    m_fileExists = false;
    m_version = 0;
    read(RegularFile(m_directory + kConsentFile), RegularFile(m_directory + kServerAnswerFile));
    m_readKernelMs = KernelTime::getTimeMonotonicAsInt64();
    const Answer answer = m_answer;
    Status::set(Status::UserConsent, answer == Answer::Yes ? 1 : answer == Answer::None ? 0 : -1);
}

void CTouImpl::read(const RegularFile& file, const RegularFile& serverAnswer) {
    if (file.cannotBeReadNow()) return putOff(file, kConsentFile);
    // It may withdraw the consent that the user's file gives.
    if (file.isRead() && serverAnswer.cannotBeReadNow())
        return putOff(serverAnswer, kServerAnswerFile);
    if (isUnreadable()) s_log.always("The terms-of-use files can be read again");
    const std::string text = takeConsent(file);
    parseConsent(text, serverVersionOf(serverAnswer));
    m_answer = m_accepted ? Answer::Yes : file.isMissing() ? Answer::None : Answer::No;
}

/// Nothing is taken from the files, and nothing in them changed, until both can be read.
void CTouImpl::putOff(const RegularFile& unreadable, const char* name) {
    if (isUnreadable()) return;
    s_log.error("File ", name, " cannot be read, nothing is collected until it can: ",
                ClassLog::errnoText(unreadable.error()));
    m_answer = Answer::Unreadable;
}

std::string CTouImpl::takeConsent(const RegularFile& file) {
    if (!file.isRead()) return "";
    m_fileExists = true;
    s_log.info("TOU file content: ", file.text());
    return file.text();
}

std::int64_t CTouImpl::serverVersionOf(const RegularFile& serverAnswer) {
    const JsonObject answer = JsonObject::loadFile(serverAnswer);
    if (!answer.isNull()) return answer.optInteger("version", 0);
    s_log.info("No TOU last server answer found");
    return 0;
}

void CTouImpl::parseConsent(const std::string& text, std::int64_t serverVersion) {
    const std::vector<std::string> words = wordsOf(text);
    if (words.size() < 3) {
        s_log.error("TOU file wrong format: ", ClassLog::foreign(text));
        return;
    }
    if (words[0] != "CUL-TOU") {
        s_log.error("TOU file wrong acceptance name: ", ClassLog::foreign(text));
        return;
    }
    const std::int32_t version = toInt32(words[1]);
    m_version = version;
    if (version < 1) {
        s_log.error("TOU version invalid: ", version);
    } else {
        m_accepted = words[2] == "TRUE" && serverVersion <= version;
        s_log.info("TOU accepted is ", m_accepted.load(), " for version ", version);
    }
    if (serverVersion <= version) dropServerAnswer();
}

void CTouImpl::dropServerAnswer() const {
    const std::string path = m_directory + kServerAnswerFile;
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
    s_log.error("File ", path, " cannot be deleted: ", ClassLog::errnoText(errno));
}

// --- asking the server ----------------------------------------------------------------------

bool CTouImpl::Refresh() {
    if (isUnreadable()) ReLoad();
    // Without the user's answer every version would be announced as new.
    m_refreshWaits = isUnreadable();
    if (m_refreshWaits) return false;
    const std::string url = ServiceTables::getTouUrl();
    NetworkHelper request;
    request.countFor(Status::Terms);
    const bool arrived = request.UrlRequest(url, true, ServiceTables::getLambdaKey());
    m_refreshWaits = request.waitsForTime();
    return arrived && announceNewer(takeAnswer(request));
}

void CTouImpl::refreshIfItWaited() {
    if (m_refreshWaits) Refresh();
}

/// @return whether the answer is one
bool CTouImpl::announceNewer(const JsonObject& answer) const {
    if (answer.isNull()) return false;
    const long long version = answer.optInteger("version", 0);
    const bool mandatory = answer.getObject("mandatory").isTrue();
    const std::string url = answer.optString("url");
    s_log.info(" tou version=", version,  //
               ", url=", url,             //
               ", mandatory=", mandatory ? "true" : "false");
    if (version <= 0 || url.empty()) {
        s_log.error("ToU server answer names no version or no url: ",
                    ClassLog::foreign(answer.getStringRep()));
        return false;
    }
    if (version > m_version) announce(url, mandatory, answer.getStringRep());
    return true;
}

void CTouImpl::announce(const std::string& url, bool mandatory, const std::string& answer) const {
    s_log.info("writing show_new_tou.txt with URL");
    write(kAnnouncementFile, url);
    if (mandatory) write(kServerAnswerFile, answer);
}

void CTouImpl::write(const std::string& name, const std::string& text) const {
    if (AtomicFile::replace(m_directory + name, text).empty()) return;
    s_log.error("File ", name, " cannot be created");
}
