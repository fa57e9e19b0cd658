#include <iostream>
#include <stdexcept>

#include "tsappinstall/messages/MessageIds.hpp"

namespace tsapp_builtins::tsapp_builtins {

std::string message_text(const resource_core::BaseMsgID& id) {
    return fl::i18n::to_string(fl::i18n::MessageCatalog::get_message(id));
}

void raise(const resource_core::BaseMsgID& id) {
    // Built before the throw so that a failing lookup leaves instead.
    std::runtime_error error(message_text(id));
    throw error;
}

void print(const resource_core::BaseMsgID& id, bool endLine) {
    const std::string text = message_text(id);
    std::cerr << text;
    if (endLine) std::cerr << std::endl;
}

}  // namespace tsapp_builtins::tsapp_builtins
