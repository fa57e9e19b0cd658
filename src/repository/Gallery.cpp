#include "Gallery.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

#include "platform/base/Ascii.hpp"
#include "tsappinstall/timeconv/UtcText.hpp"

namespace tsappinstall::repository {

using opc::detail::markup_escaped;
namespace {

// Plain CSS: a grid of cards that folds to one column on a phone, visible
// keyboard focus; nothing the page needs comes from elsewhere. Nothing may
// widen the page past a 360 px screen: text of a package breaks anywhere
// rather than overflow, commands wrap, and the versions table stacks.
const char* const kStyle = R"(<style>
:root{font-family:system-ui,sans-serif;color:#1d2330;background:#f6f7f9;line-height:1.45}
*,*::before,*::after{box-sizing:border-box}
[hidden]{display:none!important}
body{margin:0 auto;max-width:72rem;padding:1rem}
header{display:flex;flex-wrap:wrap;gap:.5rem;align-items:center}
h1{font-size:1.5rem;margin:.5rem 1rem .5rem 0}
h1,h2,p,td{overflow-wrap:anywhere}
.filter{display:flex;flex-wrap:wrap;gap:.5rem;align-items:center}
input,select{font:inherit;padding:.4rem;border:1px solid #8a93a6;border-radius:.3rem;max-width:100%}
ul.cards{list-style:none;padding:0;display:grid;gap:1rem;grid-template-columns:repeat(auto-fill,minmax(min(16rem,100%),1fr))}
.card{background:#fff;border:1px solid #d5d9e2;border-radius:.5rem;padding:1rem;display:flex;flex-direction:column;gap:.4rem;min-width:0}
img.icon{width:96px;height:96px;object-fit:contain}
.card img.icon{width:64px;height:64px}
.card h2{font-size:1.1rem;margin:0}
.meta{color:#4a5366;font-size:.9rem;margin:0}
.signed{color:#0b6b2f;font-size:.9rem;margin:0}
.unsigned{color:#8a4b00;font-size:.9rem;margin:0}
.empty{font-size:1.1rem;padding:2rem 0}
a{color:#0645ad}
a:focus,input:focus,select:focus{outline:3px solid #f0a000;outline-offset:2px}
.shot{display:block;max-width:100%;max-height:60vh;width:auto;height:auto;border:1px solid #d5d9e2}
.install{background:#fff;border:1px solid #d5d9e2;border-left:4px solid #0645ad;border-radius:.5rem;padding:.25rem 1rem .75rem;margin:1rem 0}
.install h2{font-size:1.1rem;margin:.5rem 0}
.install p{margin:.4rem 0}
pre{background:#eef1f6;padding:.5rem;border-radius:.3rem;margin:.4rem 0;white-space:pre-wrap;overflow-wrap:anywhere}
code.token{font-size:.85rem;overflow-wrap:anywhere}
.word{white-space:nowrap}
.size{white-space:nowrap}
table{border-collapse:collapse;width:100%;font-size:.9rem}
td,th{border-bottom:1px solid #d5d9e2;padding:.3rem;text-align:left;vertical-align:top}
@media (max-width:40rem){
table.versions thead{display:none}
table.versions tr{display:block;border-bottom:1px solid #d5d9e2;padding:.4rem 0}
table.versions td{display:block;border:0;padding:.1rem 0}
table.versions td::before{content:attr(data-label) ": ";font-weight:600}
}
</style>
)";

// Dates in the visitor's own time (the UTC text stays as their title);
// the filter hides the cards that do not match, folding case and Unicode
// forms in every script, not only ASCII. Without scripts every card
// shows and every date reads in UTC.
const char* const kScript = R"(<script>
(function(){
function fold(s){return s.normalize('NFKC').toLocaleLowerCase();}
document.querySelectorAll('time[datetime]').forEach(function(t){
var d=new Date(t.getAttribute('datetime'));
if(!isNaN(d)){t.title=t.textContent;t.textContent=d.toLocaleString(undefined,{dateStyle:'long',timeStyle:'short'});}});
var q=document.getElementById('q');if(!q)return;
var p=document.getElementById('platform'),none=document.getElementById('none');
var cards=[].slice.call(document.querySelectorAll('.card'));
cards.forEach(function(c){c.folded=fold(c.getAttribute('data-text'));});
document.getElementById('filter').hidden=false;
function apply(){var t=fold(q.value.trim()),w=p.value,shown=0;
cards.forEach(function(c){
var ok=c.folded.indexOf(t)>=0&&(!w||(' '+c.getAttribute('data-platforms')+' ').indexOf(' '+w+' ')>=0);
c.hidden=!ok;if(ok)++shown;});
none.hidden=shown>0;}
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

std::string siteName(const Index& index, const GallerySite& site) {
    if (!site.title.empty()) return site.title;
    if (index.repository.empty()) return "Apps";
    return "Apps of the \xE2\x80\x9C" + index.repository + "\xE2\x80\x9D repository";
}

// The releases an app works with, in words: "releases 2025.1 to 2027.4".
std::string releaseRange(const PackageEntry& e) {
    const std::string& from = e.minRelease;
    const std::string& to = e.maxRelease;
    if (from.empty() && to.empty()) return "any release";
    if (to.empty()) return "release " + from + " and later";
    if (from.empty()) return "releases up to " + to;
    if (from == to) return "release " + from;
    return "releases " + from + " to " + to;
}

std::string platformsOf(const PackageEntry& e) {
    return e.platforms.empty() ? "any platform" : join(e.platforms, ", ");
}

std::string size(std::uint64_t bytes) {
    std::string text;
    if (bytes < 1024)
        text = std::to_string(bytes) + " bytes";
    else if (bytes < 1024 * 1024)
        text = std::to_string((bytes + 512) / 1024) + " KiB";
    else
        text = std::to_string((bytes + 512 * 1024) / (1024 * 1024)) + " MiB";
    return "<span class=\"size\">" + text + "</span>";
}

// "2 March 2026, 14:05 UTC" for readers without scripts; the script puts
// the visitor's local time in its place.
std::string when(std::int64_t seconds) {
    static const char* const months[] = {"January",   "February", "March",    "April",
                                         "May",       "June",     "July",     "August",
                                         "September", "October",  "November", "December"};
    const auto time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    if (!::gmtime_r(&time, &utc)) return formatUtc(seconds);
    char clock[8];
    std::snprintf(clock, sizeof clock, "%02d:%02d", utc.tm_hour % 24, utc.tm_min % 60);
    return "<time datetime=\"" + formatUtc(seconds) + "\">" + std::to_string(utc.tm_mday) + " " +
           months[utc.tm_mon % 12] + " " + std::to_string(utc.tm_year + 1900) + ", " + clock +
           " UTC</time>";
}

std::string signedMark(const PackageEntry& e) {
    if (e.signer.empty()) return "<p class=\"unsigned\">Not signed by its author</p>\n";
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

// The description as its author broke it: a blank line starts a
// paragraph, a single line break stays one.
std::string paragraphs(const std::string& text) {
    std::string normal;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r')
            normal += text[i];
        else if (i + 1 >= text.size() || text[i + 1] != '\n')
            normal += '\n';
    }
    std::string out;
    std::size_t at = 0;
    while (at < normal.size()) {
        std::size_t end = normal.find("\n\n", at);
        if (end == std::string::npos) end = normal.size();
        std::string lines = normal.substr(at, end - at);
        while (!lines.empty() && lines.back() == '\n') lines.pop_back();
        while (!lines.empty() && lines.front() == '\n') lines.erase(0, 1);
        if (!lines.empty()) {
            std::string escaped = markup_escaped(lines);
            for (std::size_t nl; (nl = escaped.find('\n')) != std::string::npos;)
                escaped.replace(nl, 1, "<br>");
            out += "<p class=\"description\">" + escaped + "</p>\n";
        }
        at = end + 2;
    }
    return out;
}

bool isGuidText(const std::string& guid) {
    return !guid.empty() && guid.find_first_not_of("0123456789abcdefABCDEF-") == std::string::npos;
}

// The app as a visitor types it into a shell: its name when every
// character of it is plain, else its GUID. A name of a hostile package
// never reaches a command line to be copied, where quotes or control
// characters could make it another command.
std::string installArgument(const PackageEntry& e) {
    bool plain = !e.name.empty() && e.name.size() <= 80 && e.name.front() != '-';
    for (const unsigned char c : e.name)
        plain = plain && (opc::detail::is_ascii_alnum(c) || c == ' ' || c == '.' || c == '-' ||
                          c == '_' || c == '+');
    if (plain) return e.name.find(' ') == std::string::npos ? e.name : "'" + e.name + "'";
    return isGuidText(e.guid) ? e.guid : "APP";
}

// How to install from here: the repository's URL (or how to find it), the
// commands to copy, and the key that must have signed the index, which
// the visitor can hold against what tsapp records. `app` is the app of
// the page, null on the front page.
std::string installBox(const Index& index, const GallerySite& site, const PackageEntry* app) {
    const std::string name = index.repository.empty() ? "apps" : index.repository;
    // Hyphens in options and file names are no place to wrap a command.
    std::string out =
        "<section class=\"install\" aria-labelledby=\"install\">\n<h2 id=\"install\">How to "
        "install</h2>\n<p>Add this repository to tsapp once, with the CA certificate you got from "
        "its publisher:</p>\n<pre><code>tsapp repo add " +
        markup_escaped(name) + " " + markup_escaped(site.url.empty() ? "URL" : site.url) +
        " <span class=\"word\">--trust</span> <span class=\"word\">publisher-ca.pem</span>"
        "</code></pre>\n";
    if (site.url.empty())
        out += std::string("<p class=\"meta\">For URL, take the address of ") +
               (app ? "the gallery's front page" : "this page") +
               " without <code>index.html</code> at its end: the folder that holds "
               "<code>index.json</code>.</p>\n";
    if (site.signerKey.empty())
        out +=
            "<p class=\"unsigned\">This repository's index is not signed: tsapp adds only "
            "repositories whose index is.</p>\n";
    else
        out +=
            "<p class=\"meta\">Once it is added, <code>tsapp repo list</code> shows the key that "
            "signs its index: it should read SHA-256 <code class=\"token\">" +
            markup_escaped(site.signerKey) + "</code>.</p>\n";
    out += std::string("<p>Then install ") + (app ? "this app" : "an app by its name or ID") +
           ":</p>\n<pre><code>tsapp install " +
           markup_escaped(app ? installArgument(*app) : "APP") + "</code></pre>\n";
    return out + "</section>\n";
}

std::string card(const std::vector<const PackageEntry*>& versions) {
    const PackageEntry& e = *versions.front();
    std::string out = "<li class=\"card\" data-text=\"" +
                      markup_escaped(e.name + ' ' + e.summary + ' ' + e.authorName) +
                      "\" data-platforms=\"" + markup_escaped(join(e.platforms, " ")) + "\">\n";
    out += image(e.icon, "Icon of " + e.name, "", "icon");
    out += "<h2><a href=\"apps/" + appPageName(e.guid) + "\">" + markup_escaped(e.name) +
           "</a></h2>\n";
    out += "<p class=\"meta\">Version " + markup_escaped(e.version) + " by " +
           markup_escaped(e.authorName.empty() ? "an unnamed author" : e.authorName) + "</p>\n";
    out += "<p class=\"summary\">" + markup_escaped(e.summary) + "</p>\n";
    out += "<p class=\"meta\">Works with " + markup_escaped(releaseRange(e)) + ", on " +
           markup_escaped(platformsOf(e)) + "</p>\n";
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
    return "<tr><td data-label=\"Version\">" + markup_escaped(e.version) +
           "</td><td data-label=\"Works with\">" + markup_escaped(releaseRange(e)) +
           "</td><td data-label=\"Requires\">" + (products.empty() ? "nothing else" : products) +
           "</td><td data-label=\"File\"><a href=\"../" + markup_escaped(e.file) + "\" download>" +
           markup_escaped(e.file) + "</a> (" + size(e.size) +
           ")</td><td data-label=\"SHA-256\"><code class=\"token\">" + markup_escaped(e.sha256) +
           "</code></td></tr>\n";
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

std::string galleryPage(const Index& index, const GallerySite& site) {
    const auto apps = appsOf(index);
    std::string out = head(siteName(index, site));
    out += "<header>\n<h1>" + markup_escaped(siteName(index, site)) + "</h1>\n";
    if (!apps.empty()) {
        out +=
            "<div id=\"filter\" class=\"filter\" hidden>\n<label for=\"q\" "
            "class=\"meta\">Filter</label>\n<input id=\"q\" type=\"search\" placeholder=\"Name, "
            "summary or author\">\n<select id=\"platform\" aria-label=\"Platform\">\n<option "
            "value=\"\">All platforms</option>\n";
        for (const std::string& p : allPlatforms(index))
            out += "<option>" + markup_escaped(p) + "</option>\n";
        out += "</select>\n</div>\n";
    }
    out += "</header>\n<main>\n<p class=\"meta\">Updated " + when(index.generated) +
           "; this list is good until " + when(index.expires) + " (index version " +
           std::to_string(index.version) + ").</p>\n";
    if (apps.empty()) {
        out += "<p class=\"empty\">No apps yet.</p>\n" + installBox(index, site, nullptr);
    } else {
        out += installBox(index, site, nullptr);
        out += "<p id=\"none\" class=\"empty\" hidden>No app matches.</p>\n<ul class=\"cards\">\n";
        for (const auto& versions : apps) out += card(versions);
        out += "</ul>\n";
    }
    out += "</main>\n";
    out += kScript;
    return out + "</body>\n</html>\n";
}

std::string appPage(const std::vector<const PackageEntry*>& versions, const Index& index,
                    const GallerySite& site) {
    const PackageEntry& e = *versions.front();
    std::string out = head(e.name + " \xE2\x80\x93 " + siteName(index, site));
    out += "<p><a href=\"../index.html\">\xE2\x86\x90 " + markup_escaped(siteName(index, site)) +
           "</a></p>\n<main>\n";
    out += image(e.icon, "Icon of " + e.name, "../", "icon");
    out += "<h1>" + markup_escaped(e.name) + "</h1>\n";
    out += "<p class=\"meta\">Version " + markup_escaped(e.version) + " by " +
           markup_escaped(e.authorName.empty() ? "an unnamed author" : e.authorName) +
           (e.authorOrganization.empty() ? "" : ", " + markup_escaped(e.authorOrganization)) +
           "</p>\n";
    out += signedMark(e);
    out += "<p class=\"summary\">" + markup_escaped(e.summary) + "</p>\n";
    out += installBox(index, site, &e);
    out += image(e.screenshot, "Screenshot of " + e.name, "../", "shot");
    out += paragraphs(e.description);
    out += "<p class=\"meta\">Works with " + markup_escaped(releaseRange(e)) + ", on " +
           markup_escaped(platformsOf(e)) + ". App ID <code class=\"token\">" +
           markup_escaped(e.guid) + "</code></p>\n";
    out +=
        "<h2>Versions</h2>\n<table class=\"versions\">\n<thead><tr><th "
        "scope=\"col\">Version</th><th scope=\"col\">Works with</th><th "
        "scope=\"col\">Requires</th><th scope=\"col\">File</th><th "
        "scope=\"col\">SHA-256</th></tr></thead>\n<tbody>\n";
    for (const PackageEntry* version : versions) out += versionRow(*version);
    // Nothing here changes with each run (no date), so that a run rewrites
    // only the pages of apps that changed.
    out += "</tbody>\n</table>\n</main>\n";
    out += kScript;
    return out + "</body>\n</html>\n";
}

}  // namespace tsappinstall::repository
