// tsapp icon / screenshot / part: the library prints its own reason on
// stderr when it returns false.

#include "Commands.hpp"
#include "Text.hpp"
#include "tsappinstall/facade/Tsappinstall.hpp"

namespace tsapp::tool {

int runIcon(const std::string& package, const std::string& output) {
    Corvane::addons::apps::Tsappinstall facade;
    return facade.extractAppIcon(utf16(package), utf16(output)) ? kGood : kBad;
}

int runScreenshot(const std::string& package, const std::string& output) {
    Corvane::addons::apps::Tsappinstall facade;
    return facade.extractAppScreenshot(utf16(package), utf16(output)) ? kGood : kBad;
}

int runPart(const std::string& package, const std::string& relationshipType,
            const std::string& output) {
    Corvane::addons::apps::Tsappinstall facade;
    return facade.extractPartContentFromTessalApp(utf16(package), utf16(relationshipType),
                                                  utf16(output))
               ? kGood
               : kBad;
}

}  // namespace tsapp::tool
