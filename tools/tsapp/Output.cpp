#include <iostream>

#include "Commands.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace tsapp::tool {

std::string causeOf(const std::exception& e) {
    const auto* failure = dynamic_cast<const opc::Exception*>(&e);
    if (!failure || failure->reason() == opc::Reason::Other) return e.what();
    return std::string(opc::describe(failure->reason())) + ": " + e.what();
}

void printError(const std::string& what) {
    std::string line = what;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    // File names are bytes, not always UTF-8, and may hold terminal controls.
    std::cerr << "tsapp: " << fl::i18n::shown(line) << '\n';
}

void printWarnings(const std::string& file, const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) printError(file + ": warning: " + warning);
}

}  // namespace tsapp::tool
