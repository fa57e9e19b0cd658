// tsapp list: the parts of a package with their ZIP entries, and with
// --relationships the package's and every part's relationships.

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsapp::tool {
namespace {

using ojson = nlohmann::ordered_json;

ojson partsOf(opc::model::Package& package) {
    ojson parts = ojson::array();
    for (const auto& name : package.getPartNames()) {
        const opc::model::Part part = package.getPart(name);
        const auto& entry = part.getEntry();
        char crc[9];
        std::snprintf(crc, sizeof crc, "%08x", static_cast<unsigned>(entry.crc32));
        parts.push_back(
            {{"name", name.decoded()},
             {"size", entry.size},
             {"compressedSize", entry.compressedSize},
             {"method", entry.compressionMethod == entry.kStored ? "stored" : "deflate"},
             {"crc32", crc},
             {"contentType", part.getContentType()}});
    }
    return parts;
}

ojson relationshipJson(const std::string& source, const opc::model::Relationship& r) {
    return {{"source", source},
            {"id", utf8(r.getId())},
            {"type", utf8(r.getType())},
            {"target", utf8(r.getTarget())},
            {"external", r.getTargetMode() == opc::model::TargetMode::External}};
}

// "/dir/_rels/name.rels" holds the relationships of "/dir/name".
ojson relationshipsOf(opc::model::Package& package) {
    ojson list = ojson::array();
    for (const auto& r : package.getRelationships()) list.push_back(relationshipJson("/", r));
    for (const auto& name : package.getPartNames()) {
        const std::string source = name.relationshipsSource();
        if (source.empty() || source == "/") continue;  // the package's own are listed above
        const std::string& text = name.ascii();
        const std::string base = text.substr(0, text.rfind("/_rels/") + 1);
        opc::model::Part part = package.getPart(name);
        for (const auto& r :
             opc::model::readPartRelationships(part.getInputStream(), utf16(text), utf16(base)))
            list.push_back(relationshipJson(source, r));
    }
    return list;
}

// printf-style formatting of one line, every text field escaped so that a
// name cannot break the table.
template <typename... Fields>
void printRow(const char* format, const Fields&... fields) {
    const int size = std::snprintf(nullptr, 0, format, fields...);
    if (size < 0) return;
    std::string line(static_cast<std::size_t>(size) + 1, '\0');
    std::snprintf(line.data(), line.size(), format, fields...);
    line.pop_back();
    std::cout << line;
}

std::string text(const ojson& value) {
    return fl::i18n::shown(value.get<std::string>());
}

// The closing line, like `unzip -l`'s: parts, bytes, packed bytes and how
// much smaller the packed form is.
void printTotals(const ojson& parts) {
    unsigned long long size = 0, packed = 0;
    for (const auto& p : parts) {
        size += p["size"].get<unsigned long long>();
        packed += p["compressedSize"].get<unsigned long long>();
    }
    const double saved = size == 0 ? 0.0 : 100.0 * (1.0 - static_cast<double>(packed) / size);
    printRow("%10llu %10llu %5.1f%%   %zu part%s\n", size, packed, saved, parts.size(),
             parts.size() == 1 ? "" : "s");
}

void printParts(const ojson& parts) {
    printRow("%10s %10s %-7s %-8s  %-24s %s\n", "Size", "Packed", "Method", "CRC-32",
             "Content type", "Name");
    for (const auto& p : parts)
        printRow("%10llu %10llu %-7s %s  %-24s %s\n", p["size"].get<unsigned long long>(),
                 p["compressedSize"].get<unsigned long long>(), text(p["method"]).c_str(),
                 text(p["crc32"]).c_str(), text(p["contentType"]).c_str(), text(p["name"]).c_str());
    printTotals(parts);
}

void printRelationships(const ojson& list) {
    printRow("\n%-12s %-8s %-24s %s\n", "Source", "Id", "Target", "Type");
    for (const auto& r : list)
        printRow("%-12s %-8s %-24s %s\n", text(r["source"]).c_str(), text(r["id"]).c_str(),
                 text(r["target"]).c_str(), text(r["type"]).c_str());
}

int runList(const std::string& path, bool relationships, bool json) {
    opc::model::OpenedPackage opened(nativePath(path));
    printWarnings(path, opened.warnings());
    ojson out = {{"parts", partsOf(opened.package())}};
    if (relationships) out["relationships"] = relationshipsOf(opened.package());
    opened.close();
    if (json) {
        std::cout << out.dump(2, ' ', false, ojson::error_handler_t::replace) << '\n';
        return kGood;
    }
    printParts(out["parts"]);
    if (relationships) printRelationships(out["relationships"]);
    return kGood;
}

}  // namespace

std::vector<Command> addList(CLI::App& app) {
    const auto relationships = std::make_shared<bool>(false), json = std::make_shared<bool>(false);
    const PackageCommand list =
        addPackageCommand(app, "list", "List the parts (and relationships) of a package.");
    list.cli->alias("ls");
    list.cli->add_flag("-r,--relationships", *relationships, "Also list every relationship");
    list.cli->add_flag("--json", *json, "Print one JSON object");
    return {list.running(
        [=](const std::string& package) { return runList(package, *relationships, *json); })};
}

}  // namespace tsapp::tool
