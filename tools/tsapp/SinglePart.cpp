// tsapp icon / screenshot / part: copy one part, named or the target of a
// package relationship, into a file, or to standard output for "-".
//
// Read through the package layer rather than the facade so that a failure
// names its cause: no such relationship, a damaged part, an output that
// cannot be written.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsapp::tool {
namespace {

namespace apps = Corvane::addons::apps;

std::string relationshipTypeFor(const std::string& typeOrAlias) {
    if (typeOrAlias == "manifest") return apps::APP_PROPERTIES_RELATIONSHIP_TYPE;
    if (typeOrAlias == "icon") return apps::PRIMARY_ICON_RELATIONSHIP_TYPE;
    if (typeOrAlias == "screenshot") return apps::PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE;
    return typeOrAlias;
}

[[noreturn]] void failWithErrno(const std::string& file) {
    throw Failure(shownOutput(file), std::strerror(errno));
}

// The output: a regular file is written beside its name and renamed onto
// it only once complete, so that a failure leaves an existing file as it
// was and no new one behind. What is not a regular file (a terminal,
// /dev/null, a FIFO) is written in place, and "-" is standard output.
class OutputFile {
  public:
    explicit OutputFile(const std::string& output) : output_(output) {
        if (output == "-") return;
        namespace fs = std::filesystem;
        std::error_code error;
        // A link stays a link: what it points to is replaced.
        const fs::path target = fs::is_symlink(output, error) ? fs::canonical(output, error) : "";
        final_ = error || target.empty() ? fs::path(output) : target;
        const fs::file_status status = fs::status(final_, error);
        if (fs::is_directory(status)) throw Failure(output, std::strerror(EISDIR));
        if (fs::exists(status) && !fs::is_regular_file(status)) {
            fd_ = ::open(final_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
            if (fd_ < 0) failWithErrno(output);
            return;
        }
        const fs::path folder = final_.parent_path().empty() ? "." : final_.parent_path();
        std::string name = (folder / ("." + final_.filename().string() + ".XXXXXX")).string();
        fd_ = ::mkostemp(name.data(), O_CLOEXEC);
        if (fd_ < 0) failWithErrno(output);
        temporary_ = name;
        const mode_t mask = ::umask(0);
        ::umask(mask);
        if (::fchmod(fd_, 0666 & ~mask) != 0) failWithErrno(output);
    }
    ~OutputFile() {
        if (fd_ >= 0 && fd_ != STDOUT_FILENO) ::close(fd_);
        if (!temporary_.empty()) ::unlink(temporary_.c_str());
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const unsigned char* data, std::size_t size) {
        if (!writeAll(fd_, data, size)) failWithErrno(output_);
    }

    void commit() {
        if (fd_ == STDOUT_FILENO) return;
        if (::close(std::exchange(fd_, -1)) != 0) failWithErrno(output_);
        if (temporary_.empty()) return;
        if (::rename(temporary_.c_str(), final_.c_str()) != 0) failWithErrno(output_);
        temporary_.clear();
    }

  private:
    std::string output_;
    std::filesystem::path final_;
    std::string temporary_;  // removed unless committed
    int fd_ = STDOUT_FILENO;
};

// A part named as `list` shows it ("/files/a b.txt"), or the target of
// the package relationship of a type or alias.
opc::model::Part partOf(opc::model::Package& package, const std::string& path,
                        const std::string& what) {
    if (what.rfind('/', 0) == 0) {
        std::optional<opc::model::PartName> name;
        try {
            name.emplace(utf16(opc::model::PartName::forPath(what.substr(1))));
        } catch (const opc::Exception& e) {
            throw Failure(path, "no part " + what + ": " + e.what());
        }
        if (!package.containsPart(*name)) throw Failure(path, "no part " + what);
        return package.getPart(*name);
    }
    const std::string type = relationshipTypeFor(what);
    const auto found = package.getRelationshipsByType(utf16(type));
    if (found.empty()) throw Failure(path, "no package relationship of type " + type);
    return package.getPart(opc::model::PartName(found.front().getTargetURI()));
}

int runPart(const std::string& package, const std::string& what, const std::string& output) {
    opc::model::OpenedPackage opened(nativePath(package));
    opc::model::Part part = partOf(opened.package(), package, what);
    OutputFile file(output);
    unsigned char buffer[1 << 16];
    opc::InputStream& in = part.getInputStream();
    try {
        for (std::size_t n; (n = in.read(buffer, sizeof buffer)) != 0;) file.write(buffer, n);
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(package, part.getPartName().ascii() + ": " + causeOf(e));
    }
    file.commit();
    opened.close();
    return kGood;
}

// icon and screenshot copy the target of their own relationship type,
// part that of the type it is given.
Command addCopy(CLI::App& app, const char* name, const char* description, const char* type) {
    struct Options {
        std::string relationshipType;
        std::string output;
    };
    auto o = std::make_shared<Options>();
    const PackageCommand copy = addPackageCommand(app, name, description);
    CLI::App* command = copy.cli;
    if (type != nullptr) {
        o->relationshipType = type;
    } else {
        addRequired(command, "PART", o->relationshipType,
                    "A part's name as list shows it (/files/a.js), a relationship type URI, or "
                    "manifest, icon or screenshot");
    }
    addRequired(command, "OUT", o->output, "Output file, - for standard output");
    return copy.running([o](const std::string& package) {
        return runPart(package, o->relationshipType, o->output);
    });
}

}  // namespace

std::vector<Command> addSinglePart(CLI::App& app) {
    return {
        addCopy(app, "icon", "Copy the app's primary icon into a file.", "icon"),
        addCopy(app, "screenshot", "Copy the app's primary screenshot into a file.", "screenshot"),
        addCopy(app, "part", "Copy a part, by name or relationship type, into a file.", nullptr),
    };
}

}  // namespace tsapp::tool
