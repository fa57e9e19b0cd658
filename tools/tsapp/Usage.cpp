// What the tool says about a command line it cannot carry out.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <numeric>

#include "Commands.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"

namespace tsapp::tool {
namespace {

// Edits (insert, delete, replace, swap two neighbours) from `a` to `b`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    std::iota(d[0].begin(), d[0].end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i)
        for (std::size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

// The bytes a unit letter stands for, 0 for none.
std::uint64_t unitBytes(const std::string& unit) {
    static const char* const kUnits[] = {"", "K", "M", "G", "T"};
    std::string upper;
    for (char c : unit) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const std::string suffix : {"IB", "B"})
        if (upper.size() > suffix.size() && upper.compare(1, std::string::npos, suffix) == 0)
            upper.resize(1);
    for (std::size_t i = 0; i < std::size(kUnits); ++i)
        if (upper == kUnits[i]) return std::uint64_t{1} << (10 * i);
    return 0;
}

std::string sizeInBytes(std::string& value) {
    const std::size_t digits = value.find_first_not_of("0123456789");
    if (digits == 0)
        return "not a size: " + value + " (a number of bytes, optionally K, M, G or T)";
    const std::uint64_t unit = unitBytes(digits == std::string::npos ? "" : value.substr(digits));
    if (unit == 0) return "not a size: " + value + " (a number of bytes, optionally K, M, G or T)";
    std::uint64_t count = 0;
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    for (std::size_t i = 0; i < std::min(digits, value.size()); ++i) {
        const auto digit = static_cast<std::uint64_t>(value[i] - '0');
        if (count > (kMax - digit) / 10) return "too large: " + value;
        count = count * 10 + digit;
    }
    if (count > kMax / unit) return "too large: " + value;
    value = std::to_string(count * unit);
    return {};
}

}  // namespace

const CLI::Validator& sizeValue() {
    static const CLI::Validator validator(sizeInBytes, "", "size");
    return validator;
}

std::string unknownCommand(const CLI::App& app, const std::string& name) {
    std::string nearest;
    std::size_t best = std::max<std::size_t>(2, name.size() / 3) + 1;
    for (const CLI::App* sub : app.get_subcommands({})) {
        std::vector<std::string> names = sub->get_aliases();
        names.push_back(sub->get_name());
        for (const std::string& candidate : names) {
            const std::size_t distance = editDistance(name, candidate);
            if (distance < best) best = distance, nearest = candidate;
        }
    }
    return "unknown command \"" + name + "\"" +
           (nearest.empty() ? "" : "; did you mean \"" + nearest + "\"?");
}

std::string usageText(const std::string& complaint, const CLI::App* command) {
    if (command == nullptr) return complaint + " (see 'tsapp --help')";
    const std::string name = command->get_name();
    return name + ": " + complaint + " (see 'tsapp " + name + " --help')";
}

void requireAppFileName(const std::string& package) {
    const std::string extension = std::string(".") + Corvane::addons::apps::APP_FILE_EXTENSION;
    // The rule of the library's package check: ".tsappinstall" alone is
    // a hidden file's name, not an extension.
    if (std::filesystem::path(package).extension() != extension)
        throw Failure(package, "not an app file: the extension is not " + extension);
}

void checkTrustFiles(const std::vector<std::string>& files) {
    try {
        tsappinstall::integrity::checkTrustAnchors(files);
    } catch (const tsappinstall::Error& e) {
        throw UsageError(e.fault().item, e.fault().detail);
    }
}

}  // namespace tsapp::tool
