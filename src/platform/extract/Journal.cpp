#include "platform/extract/Journal.hpp"

#include <unistd.h>

#include <atomic>
#include <climits>

#include "platform/extract/StagingStamp.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

const std::string kPrefix = ".~tsapp-";
const std::string kMagic = "tsapp-journal-2";
const std::string kEnd = "end";
// Far above any real journal (100,000 paths of 600 bytes), far below what
// would strain memory.
constexpr std::size_t kMaxJournalBytes = 64u << 20;

bool digitsThenDash(const std::string& text, std::size_t& at) {
    const std::size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    return at > start && at < text.size() && text[at++] == '-';
}

// A path below the destination that cannot leave it: relative, no empty,
// "." or ".." component, none of the extractor's own names.
bool isPlainRelativePath(const std::string& path) {
    if (path.empty() || path.size() >= PATH_MAX || path.front() == '/') return false;
    for (const std::string& segment : splitPath(path))
        if (segment.empty() || segment == "." || segment == ".." || segment.size() > NAME_MAX ||
            isReservedName(segment))
            return false;
    return true;
}

// Empty when `text` is a whole journal for `token` whose every path is
// plain; else what is wrong with it.
std::string decodeJournal(const std::string& text, const std::string& token, Journal& journal) {
    std::vector<std::string> records;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\0', at);
        if (end == std::string::npos) return "it is cut short";
        records.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    if (records.size() < 4 || records[0] != kMagic) return "it is not a journal";
    if (records[1] != token) return "it belongs to another staging folder";
    if (records[2] != "R" && records[2] != "K") return "it is not a journal";
    if (records.back() != kEnd) return "it is cut short";
    journal.refuseExisting = records[2] == "K";
    for (std::size_t i = 3; i + 1 < records.size(); ++i) {
        const std::string& record = records[i];
        JournalEntry entry;
        if (record.size() > 1 && record[0] == 'D') {
            entry.folder = true;
            entry.path = record.substr(1);
        } else if (record.size() > 2 && record[0] == 'F' &&
                   (record[1] == '0' || record[1] == '1')) {
            entry.existed = record[1] == '1';
            entry.path = record.substr(2);
        } else {
            return "record " + std::to_string(i) + " is malformed";
        }
        if (!isPlainRelativePath(entry.path))
            return "it names a path outside the folder or of the extractor's own";
        journal.entries.push_back(std::move(entry));
    }
    return {};
}

}  // namespace

std::string stagedName(std::size_t index) {
    return "n" + std::to_string(index);
}

std::string asideName(std::size_t index) {
    return "o" + std::to_string(index);
}

std::string stagingFolderName(const std::string& beside) {
    static std::atomic<unsigned long> counter{0};
    std::string name = kPrefix + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    return beside.empty() ? name : name + "-" + beside;
}

// ".~tsapp-<pid>-<n>" (inside) or ".~tsapp-<pid>-<n>-<beside>".
bool isStagingName(const std::string& name, const std::string& beside) {
    if (name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
    std::size_t at = kPrefix.size();
    if (!digitsThenDash(name, at)) return false;
    const std::size_t counterStart = at;
    while (at < name.size() && name[at] >= '0' && name[at] <= '9') ++at;
    if (at == counterStart) return false;
    if (beside.empty()) return at == name.size();
    return name.compare(at, std::string::npos, "-" + beside) == 0;
}

std::string encodeJournal(const std::string& token, const Journal& journal) {
    std::string text = kMagic + '\0' + token + '\0' + (journal.refuseExisting ? "K" : "R") + '\0';
    for (const auto& entry : journal.entries) {
        text += entry.folder ? "D" : entry.existed ? "F1" : "F0";
        text += entry.path;
        text += '\0';
    }
    text += kEnd + '\0';
    if (text.size() > kMaxJournalBytes)
        throw Exception(Reason::CannotWrite, "the package names more paths than one journal holds");
    return text;
}

bool readJournal(const FileOps& ops, int staging, const std::string& token, bool& forward,
                 Journal& journal, std::string& problem) {
    std::string text, why;
    forward = true;
    if (!readOwnFile(ops, staging, kJournal, kMaxJournalBytes, text, why)) {
        if (why != kMissing) {
            problem = "its journal " + why;
            return true;
        }
        forward = false;
        if (!readOwnFile(ops, staging, kUndoJournal, kMaxJournalBytes, text, why)) {
            if (why == kMissing) return false;
            problem = "its journal " + why;
            return true;
        }
    }
    const std::string wrong = decodeJournal(text, token, journal);
    if (!wrong.empty()) problem = "its journal is unreadable: " + wrong;
    return true;
}

}  // namespace opc::detail
