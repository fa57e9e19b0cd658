#include "tsappinstall/Guid.hpp"

#include "platform/base/Ascii.hpp"

namespace tsappinstall {

bool isGuid(const std::string& text) {
    static const int groups[] = {8, 4, 4, 4, 12};
    std::size_t at = 0;
    for (int group = 0; group < 5; ++group) {
        for (int i = 0; i < groups[group]; ++i, ++at)
            if (at >= text.size() || opc::detail::hex_value(text[at]) < 0) return false;
        if (group < 4 && (at >= text.size() || text[at++] != '-')) return false;
    }
    return at == text.size();
}

}  // namespace tsappinstall
