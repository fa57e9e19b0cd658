// tsapp icon / screenshot / part: copy the target of one package
// relationship into a file, or to standard output for "-".
//
// Read through the package layer rather than the facade so that a failure
// names its cause: no such relationship, a damaged part, an output that
// cannot be written.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
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

// Closes the output file on every way out but the one that checks close().
class OutputFile {
  public:
    explicit OutputFile(int fd) : fd_(fd) {}
    ~OutputFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

[[noreturn]] void failWithErrno(const std::string& file) {
    throw Failure(file, std::strerror(errno));
}

void writeAll(int fd, const unsigned char* data, std::size_t size, const std::string& output) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) failWithErrno(output);
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

int runPart(const std::string& package, const std::string& typeOrAlias, const std::string& output) {
    opc::model::OpenedPackage opened(nativePath(package));
    const std::string type = relationshipTypeFor(typeOrAlias);
    const auto found = opened->getRelationshipsByType(utf16(type));
    if (found.empty()) throw Failure(package, "no package relationship of type " + type);
    opc::model::Part part = opened->getPart(opc::model::PartName(found.front().getTargetURI()));

    const bool toFile = output != "-";
    OutputFile file(toFile ? ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)
                           : -1);
    if (toFile && file.get() < 0) failWithErrno(output);
    const int fd = toFile ? file.get() : STDOUT_FILENO;
    unsigned char buffer[1 << 16];
    opc::InputStream& in = part.getInputStream();
    try {
        for (std::size_t n; (n = in.read(buffer, sizeof buffer)) != 0;)
            writeAll(fd, buffer, n, output);
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(package, part.getPartName().ascii() + ": " + causeOf(e));
    }
    if (toFile && ::close(file.release()) != 0) failWithErrno(output);
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
        command
            ->add_option("RELTYPE", o->relationshipType,
                         "Relationship type URI, or manifest, icon or screenshot")
            ->required()
            ->check(nonEmpty());
    }
    command->add_option("OUT", o->output, "Output file, - for standard output")
        ->required()
        ->check(nonEmpty());
    return copy.running([o](const std::string& package) {
        return runPart(package, o->relationshipType, o->output);
    });
}

}  // namespace

std::vector<Command> addSinglePart(CLI::App& app) {
    return {
        addCopy(app, "icon", "Copy the app's primary icon into a file.", "icon"),
        addCopy(app, "screenshot", "Copy the app's primary screenshot into a file.", "screenshot"),
        addCopy(app, "part", "Copy the target of a package relationship type into a file.",
                nullptr),
    };
}

}  // namespace tsapp::tool
