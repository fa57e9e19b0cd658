// Arbitrary text as a part name and as a relationship target. Whatever is
// accepted must satisfy what the rest of the library relies on.

#include <cstdlib>
#include <string>

#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/PartName.hpp"
#include "tsappinstall/platform/opc/Relationship.hpp"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkAccepted(const opc::model::PartName& name) {
    const std::string& text = name.ascii();
    require(!text.empty() && text[0] == '/' && text.back() != '/');
    require(text.find("//") == std::string::npos);
    require(text.find("/./") == std::string::npos && text.find("/../") == std::string::npos);
    require(text.find('\0') == std::string::npos);
    // Accepted names are stable: parsing the result again gives the same name.
    require(opc::model::PartName(name.toString()) == name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text += static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    try {
        checkAccepted(opc::model::PartName(text));
    } catch (const opc::Exception&) {
    }
    for (const auto& base : {std::u16string(u"/"), std::u16string(u"/a/b/c.xml")}) {
        try {
            opc::model::Relationship rel(u"r", u"t", text, opc::model::TargetMode::Internal, base);
            checkAccepted(opc::model::PartName(rel.getTargetURI()));
        } catch (const opc::Exception&) {
        }
    }
    return 0;
}
