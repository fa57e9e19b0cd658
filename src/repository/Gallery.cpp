#include "Gallery.hpp"

#include <algorithm>
#include <map>

#include "platform/base/Ascii.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsappinstall::repository {

using opc::detail::markup_escaped;
namespace {

// Plain CSS: a grid of cards that folds to one column on a phone, visible
// keyboard focus; nothing the page needs comes from elsewhere.
const char* const kStyle = R"(<style>
:root{font-family:system-ui,sans-serif;color:#1d2330;background:#f6f7f9}
body{margin:0 auto;max-width:72rem;padding:1rem}
header{display:flex;flex-wrap:wrap;gap:.5rem;align-items:center}
h1{font-size:1.5rem;margin:.5rem 1rem .5rem 0}
input,select{font:inherit;padding:.4rem;border:1px solid #8a93a6;border-radius:.3rem}
ul.cards{list-style:none;padding:0;display:grid;gap:1rem;grid-template-columns:repeat(auto-fill,minmax(16rem,1fr))}
.card{background:#fff;border:1px solid #d5d9e2;border-radius:.5rem;padding:1rem;display:flex;flex-direction:column;gap:.4rem}
.card img{width:48px;height:48px;object-fit:contain}
.card h2{font-size:1.1rem;margin:0}
.meta{color:#4a5366;font-size:.9rem;margin:0}
.signed{color:#0b6b2f;font-size:.9rem;margin:0}
.unsigned{color:#8a4b00;font-size:.9rem;margin:0}
a{color:#0645ad}
a:focus,input:focus,select:focus{outline:3px solid #f0a000;outline-offset:2px}
.shot{max-width:100%;height:auto;border:1px solid #d5d9e2}
table{border-collapse:collapse;width:100%;font-size:.9rem}
td,th{border-bottom:1px solid #d5d9e2;padding:.3rem;text-align:left;vertical-align:top}
code{word-break:break-all}
</style>
)";

// Hides the cards that do not match; without scripts every card shows.
const char* const kFilterScript = R"(<script>
(function(){
var q=document.getElementById('q'),p=document.getElementById('platform');
q.hidden=false;p.hidden=false;document.getElementById('filter').hidden=false;
function apply(){var t=q.value.toLowerCase(),w=p.value;
document.querySelectorAll('.card').forEach(function(c){
var ok=c.getAttribute('data-text').indexOf(t)>=0&&(!w||(' '+c.getAttribute('data-platforms')+' ').indexOf(' '+w+' ')>=0);
c.hidden=!ok;});}
q.addEventListener('input',apply);p.addEventListener('change',apply);})();
</script>
)";

std::string head(const std::string& title) {
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
           markup_escaped(title) + "</title>\n" + kStyle + "</head>\n<body>\n";
}

std::string join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (const std::string& item : items) out += (out.empty() ? "" : separator) + item;
    return out;
}

std::string releaseRange(const PackageEntry& e) {
    if (e.minRelease.empty() && e.maxRelease.empty()) return "any release";
    return "release " + (e.minRelease.empty() ? "any" : e.minRelease) + " to " +
           (e.maxRelease.empty() ? "any" : e.maxRelease);
}

std::string size(std::uint64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " bytes";
    if (bytes < 1024 * 1024) return std::to_string((bytes + 512) / 1024) + " KiB";
    return std::to_string((bytes + 512 * 1024) / (1024 * 1024)) + " MiB";
}

std::string signedMark(const PackageEntry& e) {
    if (e.signer.empty()) return "<p class=\"unsigned\">Not signed</p>\n";
    return "<p class=\"signed\" title=\"SHA-256 " + markup_escaped(e.signerFingerprint) +
           "\">Signed by " + markup_escaped(e.signer) + "</p>\n";
}

// `prefix` leads from the page to the repository's folder.
std::string image(const std::string& path, const std::string& alt, const std::string& prefix,
                  const char* cssClass) {
    if (path.empty()) return {};
    return "<img class=\"" + std::string(cssClass) + "\" src=\"" + markup_escaped(prefix + path) +
           "\" alt=\"" + markup_escaped(alt) + "\">\n";
}

std::string card(const std::vector<const PackageEntry*>& versions) {
    const PackageEntry& e = *versions.front();
    const std::string text =
        opc::detail::ascii_lower(e.name + ' ' + e.summary + ' ' + e.authorName);
    std::string out = "<li class=\"card\" data-text=\"" + markup_escaped(text) +
                      "\" data-platforms=\"" + markup_escaped(join(e.platforms, " ")) + "\">\n";
    out += image(e.icon, "Icon of " + e.name, "", "icon");
    out += "<h2><a href=\"apps/" + appPageName(e.guid) + "\">" + markup_escaped(e.name) +
           "</a></h2>\n";
    out += "<p class=\"meta\">Version " + markup_escaped(e.version) + " by " +
           markup_escaped(e.authorName.empty() ? "an unnamed author" : e.authorName) + "</p>\n";
    out += "<p class=\"summary\">" + markup_escaped(e.summary) + "</p>\n";
    out += "<p class=\"meta\">" + markup_escaped(releaseRange(e)) + "; " +
           markup_escaped(e.platforms.empty() ? "any platform" : join(e.platforms, ", ")) +
           "</p>\n";
    out += signedMark(e);
    out += "<p class=\"meta\"><a href=\"" + markup_escaped(e.file) + "\" download>Download</a> (" +
           size(e.size) + ")</p>\n</li>\n";
    return out;
}

std::vector<std::string> allPlatforms(const Index& index) {
    std::vector<std::string> all;
    for (const PackageEntry& e : index.packages)
        all.insert(all.end(), e.platforms.begin(), e.platforms.end());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

std::string versionRow(const PackageEntry& e) {
    std::string products;
    for (const Product& p : e.requiredProducts)
        products +=
            markup_escaped((p.name.empty() ? p.identifier : p.name) + " " + p.version) + "<br>";
    return "<tr><td>" + markup_escaped(e.version) + "</td><td>" + markup_escaped(releaseRange(e)) +
           "</td><td>" + (products.empty() ? "none" : products) + "</td><td><a href=\"../" +
           markup_escaped(e.file) + "\" download>" + markup_escaped(e.file) + "</a> (" +
           size(e.size) + ")</td><td><code>" + markup_escaped(e.sha256) + "</code></td></tr>\n";
}

}  // namespace

std::string appPageName(const std::string& guid) {
    std::string name;
    for (const char c : opc::detail::ascii_lower(guid))
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || c == '-') name += c;
    return (name.empty() ? "app" : name) + ".html";
}

std::vector<std::vector<const PackageEntry*>> appsOf(const Index& index) {
    std::map<std::string, std::vector<const PackageEntry*>> byGuid;
    for (const PackageEntry& e : index.packages) byGuid[appPageName(e.guid)].push_back(&e);
    std::vector<std::vector<const PackageEntry*>> apps;
    for (auto& [guid, versions] : byGuid) {
        std::sort(versions.begin(), versions.end(),
                  [](const PackageEntry* a, const PackageEntry* b) {
                      return compareVersions(a->version, b->version) > 0;
                  });
        apps.push_back(std::move(versions));
    }
    std::stable_sort(apps.begin(), apps.end(), [](const auto& a, const auto& b) {
        return opc::detail::ascii_lower(a.front()->name) <
               opc::detail::ascii_lower(b.front()->name);
    });
    return apps;
}

std::string galleryPage(const Index& index) {
    std::string out = head("Apps");
    out +=
        "<header>\n<h1>Apps</h1>\n<label id=\"filter\" for=\"q\" class=\"meta\" "
        "hidden>Filter</label>\n"
        "<input id=\"q\" type=\"search\" placeholder=\"Name, summary or author\" hidden>\n"
        "<select id=\"platform\" aria-label=\"Platform\" hidden>\n<option value=\"\">All "
        "platforms</option>\n";
    for (const std::string& p : allPlatforms(index))
        out += "<option>" + markup_escaped(p) + "</option>\n";
    out += "</select>\n</header>\n<main>\n<p class=\"meta\">Index version " +
           std::to_string(index.version) + ", generated " + formatUtc(index.generated) +
           ", valid until " + formatUtc(index.expires) + ".</p>\n<ul class=\"cards\">\n";
    for (const auto& versions : appsOf(index)) out += card(versions);
    out += "</ul>\n</main>\n";
    out += kFilterScript;
    return out + "</body>\n</html>\n";
}

std::string appPage(const std::vector<const PackageEntry*>& versions) {
    const PackageEntry& e = *versions.front();
    std::string out = head(e.name);
    out += "<p><a href=\"../index.html\">All apps</a></p>\n<main>\n";
    out += image(e.icon, "Icon of " + e.name, "../", "icon");
    out += "<h1>" + markup_escaped(e.name) + "</h1>\n";
    out += "<p class=\"meta\">Version " + markup_escaped(e.version) + " by " +
           markup_escaped(e.authorName) +
           (e.authorOrganization.empty() ? "" : ", " + markup_escaped(e.authorOrganization)) +
           "</p>\n";
    out += signedMark(e);
    out += "<p class=\"summary\">" + markup_escaped(e.summary) + "</p>\n";
    out += image(e.screenshot, "Screenshot of " + e.name, "../", "shot");
    out += "<p class=\"description\">" + markup_escaped(e.description) + "</p>\n";
    out += "<p class=\"meta\">GUID <code>" + markup_escaped(e.guid) + "</code>; " +
           markup_escaped(e.platforms.empty() ? "any platform" : join(e.platforms, ", ")) +
           "</p>\n";
    out +=
        "<h2>Versions</h2>\n<table>\n<thead><tr><th scope=\"col\">Version</th><th "
        "scope=\"col\">Releases</th><th scope=\"col\">Requires</th><th "
        "scope=\"col\">File</th><th scope=\"col\">SHA-256</th></tr></thead>\n<tbody>\n";
    for (const PackageEntry* version : versions) out += versionRow(*version);
    out += "</tbody>\n</table>\n</main>\n";
    return out + "</body>\n</html>\n";
}

}  // namespace tsappinstall::repository
