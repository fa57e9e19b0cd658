#include "platform/extract/ExtractionPaths.hpp"

#include <climits>

#include "platform/base/Ascii.hpp"

#include "tsappinstall/platform/extract/Extraction.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc::detail {
namespace {

[[noreturn]] void refuse(const std::string& partName, const char* why) {
    throw Exception(Reason::BadPath,
                    "part name \"" + partName + "\" cannot be a file path: " + why);
}

// Why `segment` cannot be a path component; null when it can.
const char* segmentProblem(std::string_view segment) {
    if (segment.empty()) return "empty segment";
    if (segment == "." || segment == "..") return "relative segment";
    if (segment.find('/') != std::string_view::npos) return "encoded slash";
    if (segment.find('\0') != std::string_view::npos) return "NUL character";
    if (segment.size() > NAME_MAX) return "segment too long";
    if (isReservedName(segment)) return "the extractor reserves names beginning with \".~tsapp\"";
    return nullptr;
}

void checkSegment(const std::string& segment, const std::string& partName) {
    if (const char* why = segmentProblem(segment)) refuse(partName, why);
}

}  // namespace

FileSegments fileSegmentsFor(const std::string& partName, bool decode) {
    if (partName.size() < 2 || partName[0] != '/') refuse(partName, "not an absolute part name");
    FileSegments segments;
    std::size_t pathLength = 0;
    std::size_t start = 1;
    while (start <= partName.size()) {
        std::size_t end = partName.find('/', start);
        if (end == std::string::npos) end = partName.size();
        std::string segment = partName.substr(start, end - start);
        if (decode) {
            auto decoded = percent_decoded(segment);
            if (!decoded) refuse(partName, "malformed escape");
            segment = std::move(*decoded);
        }
        checkSegment(segment, partName);
        // Deeper than any path can name: such a file could be made with
        // openat() one folder at a time, yet neither the caller nor the usual
        // tools could reach or remove it by its path.
        pathLength += segment.size() + 1;
        if (pathLength >= PATH_MAX) refuse(partName, "path too long");
        segments.push_back(std::move(segment));
        start = end + 1;
    }
    return segments;
}

std::string filePathFor(const std::string& partName) {
    // Most names need neither decoding nor splitting: when no segment has
    // an escape or anything to refuse, the path is the name after its "/",
    // and it is checked in place. A name refused takes the long way, which
    // says why.
    if (partName.size() < 2 || partName[0] != '/' || partName.size() >= PATH_MAX ||
        partName.find('%') != std::string::npos)
        return joinSegments(fileSegmentsFor(partName, true));
    const std::string_view name(partName);
    for (std::size_t start = 1; start <= name.size();) {
        std::size_t end = name.find('/', start);
        if (end == std::string_view::npos) end = name.size();
        if (segmentProblem(name.substr(start, end - start)))
            return joinSegments(fileSegmentsFor(partName, true));
        start = end + 1;
    }
    return partName.substr(1);
}

bool isReservedName(std::string_view segment) {
    static constexpr std::string_view kReservedPrefix = ".~tsapp";
    if (segment.size() < kReservedPrefix.size()) return false;
    for (std::size_t i = 0; i < kReservedPrefix.size(); ++i)
        if (ascii_lower(segment[i]) != kReservedPrefix[i]) return false;
    return true;
}

}  // namespace opc::detail

namespace opc::extraction {

bool isReservedPartName(const std::string& partName) {
    // Without a percent sign every segment stands as written, and a reserved
    // one starts with ".~": most names are settled without splitting them.
    if (partName.find('%') == std::string::npos && partName.find("/.~") == std::string::npos &&
        partName.compare(0, 2, ".~") != 0)
        return false;
    for (const std::string& segment : detail::splitPath(partName))
        if (detail::isReservedName(detail::percent_decoded(segment).value_or(segment))) return true;
    return false;
}

}  // namespace opc::extraction

namespace opc::detail {

Destination splitDestination(const std::filesystem::path& where) {
    std::string path = where.native();
    if (path.empty() || path[0] != '/')
        throw Exception(Reason::CannotWrite,
                        "the destination \"" + path + "\" is not an absolute path");
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::size_t slash = path.rfind('/');
    return {path, slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

FileSegments splitPath(const std::string& path) {
    FileSegments segments;
    std::size_t start = 0;
    for (std::size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1)
        segments.push_back(path.substr(start, slash - start));
    segments.push_back(path.substr(start));
    return segments;
}

std::string joinSegments(const FileSegments& segments) {
    std::string joined;
    for (const auto& segment : segments) {
        if (!joined.empty()) joined += '/';
        joined += segment;
    }
    return joined;
}

}  // namespace opc::detail
