// tsapp extract: unpack every part into a folder.

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

namespace tsapp::tool {

int runExtract(const std::string& package, const std::string& folder) {
    Corvane::addons::apps::Tsappinstall facade;
    facade.extractAppFile(utf16(package), utf16(folder));
    return kGood;
}

}  // namespace tsapp::tool
