#pragma once

// Instants as the text records, indexes and reports show them:
// "2026-11-25T08:40:11Z", whole seconds, always UTC.

#include <cstdint>
#include <optional>
#include <string>

#include "tsappinstall/export.hpp"

namespace tsappinstall {

TSAPP_API std::string formatUtc(std::int64_t secondsSinceEpoch);
// The seconds since the epoch of exactly that form; nullopt for any other.
TSAPP_API std::optional<std::int64_t> parseUtc(const std::string& text);

}  // namespace tsappinstall
