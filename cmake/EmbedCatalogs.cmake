# Writes OUTPUT: a C++ source whose compiled_catalog_sources() returns the
# text of every catalog resource in CATALOGS (a ;-list of files).
set(body "")
foreach(file IN LISTS CATALOGS)
  file(READ "${file}" text)
  string(APPEND body "        R\"tsapp_catalog(${text})tsapp_catalog\",\n")
endforeach()
file(WRITE "${OUTPUT}.tmp"
"// Generated from the catalog resources; edit those, not this file.
#include \"platform/i18n/CatalogResource.hpp\"

namespace fl::i18n::detail {

const std::vector<std::string_view>& compiled_catalog_sources() {
    static const std::vector<std::string_view> sources = {
${body}    };
    return sources;
}

}  // namespace fl::i18n::detail
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
