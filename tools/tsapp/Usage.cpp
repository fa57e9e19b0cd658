// What the tool says about a command line it cannot carry out.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>

#include "Commands.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace tsapp::tool {
namespace {

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
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) {
        for (const std::string& alias : sub->get_aliases()) names.push_back(alias);
        names.push_back(sub->get_name());
    }
    const auto near = fl::i18n::nearest(name, names);
    return "unknown command \"" + name + "\"" +
           (near.empty() ? "" : "; did you mean \"" + near.front() + "\"?");
}

std::string usageText(const std::string& complaint, const CLI::App* command) {
    if (command == nullptr) return complaint + " (see 'tsapp --help')";
    // The innermost command the line reached ("repo add"), whose help
    // answers the complaint.
    for (bool deeper = true; deeper;) {
        deeper = false;
        for (const CLI::App* sub : command->get_subcommands({}))
            if (sub->parsed()) {
                command = sub;
                deeper = true;
                break;
            }
    }
    std::string name = command->get_name();
    for (const CLI::App* up = command->get_parent(); up && up->get_parent(); up = up->get_parent())
        name = up->get_name() + " " + name;
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
