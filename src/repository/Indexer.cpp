// Indexing a folder: each package is read on a pool of workers (each with
// its own serializer, whose schema is compiled once), unless the cache
// vouches for it; then the index, its signature and the gallery are
// written, every file to a temporary name renamed into place.

#include "tsappinstall/repository/Indexer.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "Gallery.hpp"
#include "IndexJson.hpp"
#include "images/Images.hpp"
#include "integrity/FileSha256.hpp"
#include "integrity/PackageIntegrity.hpp"
#include "platform/base/Ascii.hpp"
#include "platform/base/ModifiedTime.hpp"
#include "platform/base/ReadRegular.hpp"
#include "platform/base/UniqueFd.hpp"
#include "platform/base/WriteAll.hpp"
#include "tsappinstall/Threads.hpp"
#include "tsappinstall/inspect/PackageCheck.hpp"
#include "tsappinstall/integrity/Digests.hpp"
#include "tsappinstall/integrity/Signature.hpp"
#include "tsappinstall/manifest/AppManifestSerializer.hpp"
#include "tsappinstall/manifest/PackageLayout.hpp"
#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/platform/opc/OpenedPackage.hpp"

namespace tsappinstall::repository {
namespace {

namespace fs = std::filesystem;
namespace apps = Corvane::addons::apps;
using fl::i18n::to_string;

const char* const kCacheFile = ".tsapp-index-cache.json";
const char* const kAppsFolder = "apps";
// An icon or screenshot larger than this is left out rather than read.
const std::uint64_t kMaxImageBytes = 16u << 20;

struct FileStamp {
    std::uint64_t size = 0;
    std::int64_t mtime = 0;  // nanoseconds
};

// What one package contributes, read afresh or taken from the cache.
struct Outcome {
    FileStamp stamp;
    std::string sha256;
    std::optional<PackageEntry> entry;
    std::string bad;                  // why it is left out, when it is
    std::vector<std::string> images;  // problems with its images
};

[[noreturn]] void fail(FaultKind kind, const std::string& what) {
    throw Error(kind, what);
}

std::optional<FileStamp> stampOf(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    return FileStamp{static_cast<std::uint64_t>(info.st_size), opc::detail::modifiedNs(info)};
}

// Writes `bytes` to a fresh temporary file beside `path` and renames it
// over `path`: a reader sees the old file or the new one. `durable` files
// are flushed to disk first; the gallery's pages and the images can be
// made again from the packages.
void writeAtomically(const fs::path& path, const std::string& bytes, bool durable = false) {
    static std::atomic<unsigned> counter{0};
    const fs::path temporary =
        path.parent_path() / ("." + path.filename().string() + ".tmp." +
                              std::to_string(::getpid()) + "." + std::to_string(counter++));
    {
        const opc::detail::UniqueFd fd(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!fd) fail(FaultKind::CannotWrite, "cannot create " + temporary.string());
        if (opc::detail::write_all(fd.get(), bytes.data(), bytes.size()) != 0 ||
            (durable && ::fsync(fd.get()) != 0)) {
            ::unlink(temporary.c_str());
            fail(FaultKind::CannotWrite, "cannot write " + temporary.string());
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        fail(FaultKind::CannotWrite,
             "cannot rename " + temporary.string() + " to " + path.string());
    }
}

std::string readPart(opc::model::Part& part) {
    std::string bytes;
    opc::InputStream& in = part.getInputStream();
    unsigned char buffer[1 << 15];
    for (std::size_t got; (got = in.read(buffer, sizeof buffer)) > 0;)
        bytes.append(reinterpret_cast<const char*>(buffer), got);
    return bytes;
}

// Publishes the package's image of relationship `type` under images/,
// named by its SHA-256; returns its path there, or empty with the reason
// in `problems`.
std::string publishImage(opc::model::Package& package, const char* type, const char* what,
                         const fs::path& folder, std::vector<std::string>& problems) {
    const auto found = package.getRelationshipsByType(fl::i18n::to_ustring(type));
    if (found.empty()) return {};
    opc::model::Part part = package.getPart(opc::model::PartName(found.front().getTargetURI()));
    if (part.getEntry().size > kMaxImageBytes) {
        problems.push_back(std::string("the ") + what + " is larger than " +
                           std::to_string(kMaxImageBytes) + " bytes");
        return {};
    }
    const std::string bytes = readPart(part);
    const std::string actual = images::imageType(bytes);
    const std::string claimed = images::claimedType(part.getContentType());
    if (actual.empty() || actual != claimed) {
        problems.push_back(std::string("the ") + what + " (" + part.getContentType() + ") is " +
                           (actual.empty() ? "no PNG, JPEG or inert SVG" : "a " + actual));
        return {};
    }
    integrity::Sha256 hash;
    hash.update(bytes.data(), bytes.size());
    const std::string name = std::string(IMAGES_FOLDER) + "/" + hash.finishHex() + "." + actual;
    if (!fs::exists(folder / name)) writeAtomically(folder / name, bytes);
    return name;
}

// The signer of a signed package, whatever anchor its chain leads to;
// throws the reason when the signature does not sign this package.
void readSigner(opc::model::Package& package, PackageEntry& entry) {
    if (!integrity::listsDigests(package)) return;
    std::vector<Fault> faults;
    const auto list = integrity::readDigestList(package, faults);
    if (!list) return;
    integrity::Sha256 listHash;
    listHash.update(list->text.data(), list->text.size());
    entry.digestList = list->name.ascii().substr(1);
    entry.digestListSha256 = listHash.finishHex();
    integrity::VerificationReport report;
    integrity::checkAuthor(package, list->text, {{}, false}, report);
    for (const Fault& fault : report.faults)
        if (fault.kind != FaultKind::UntrustedSigner) throw Error(fault, describe(fault));
    if (!report.isSigned) return;
    entry.signer = report.signer;
    entry.signerFingerprint = report.certificate.fingerprint;
    entry.signerKey = report.certificate.keyFingerprint;
}

std::string utf8(const std::u16string& text) {
    return to_string(text);
}

PackageEntry entryOf(const AppManifest& m) {
    PackageEntry e;
    e.guid = m.GUID;
    e.name = utf8(m.name);
    e.version = utf8(m.version);
    e.summary = utf8(m.summary);
    e.description = utf8(m.description);
    e.authorName = utf8(m.authorName);
    e.authorContact = utf8(m.authorContact);
    e.authorOrganization = utf8(m.authorOrganization);
    e.minRelease = utf8(m.minTESSALVer);
    e.maxRelease = utf8(m.maxTESSALVer);
    for (const auto& platform : m.supportedPlatforms) e.platforms.push_back(utf8(platform));
    for (const auto& p : m.requiredProducts)
        e.requiredProducts.push_back({utf8(p.identifier), utf8(p.name), utf8(p.version)});
    return e;
}

void readPackage(const fs::path& folder, const std::string& file, AppManifestSerializer& serializer,
                 Outcome& out) {
    const fs::path path = folder / file;
    if (!isPlainFileName(file)) {
        out.bad = "the name is not a plain package name (letters, digits and .-_+~)";
        return;
    }
    const inspect::Report report = inspect::checkPackage(path, serializer);
    if (!report.good()) {
        out.bad = report.faults.front().detail;
        return;
    }
    try {
        PackageEntry entry = entryOf(*report.manifest);
        opc::model::OpenedPackage opened(path);
        readSigner(opened.package(), entry);
        entry.icon = publishImage(opened.package(), apps::PRIMARY_ICON_RELATIONSHIP_TYPE, "icon",
                                  folder, out.images);
        entry.screenshot =
            publishImage(opened.package(), apps::PRIMARY_SCREENSHOT_RELATIONSHIP_TYPE, "screenshot",
                         folder, out.images);
        opened.close();
        entry.file = file;
        entry.size = out.stamp.size;
        entry.sha256 = out.sha256;
        out.entry = std::move(entry);
    } catch (const opc::Exception& e) {
        out.bad = e.what();
    } catch (const Error& e) {
        if (e.kind() == FaultKind::CannotWrite) throw;
        out.bad = e.what();
    }
}

// The cache: per file its stamp, SHA-256 and outcome, and the last version
// written and the repository it named (the index itself may be gone).
// A file the indexer wrote before, read back. Whoever else may write to
// the folder (an upload area) cannot make a run wait on a FIFO or read
// through a link in its place: either reads as absent, and is replaced.
std::optional<std::string> readOwnFile(const fs::path& path) {
    return opc::detail::read_regular_file(path.string(), 4 * MAX_INDEX_BYTES);
}

struct Cache {
    std::uint64_t version = 0;
    std::string repository;
    std::string url, title;  // the gallery's
    std::vector<std::string> revokedKeys;
    std::map<std::string, Outcome> files;
};

Cache loadCache(const fs::path& folder) {
    Cache cache;
    const auto text = readOwnFile(folder / kCacheFile);
    if (!text) return cache;
    try {
        const Json root = Json::parse(*text);
        cache.version = root.at("version").get<std::uint64_t>();
        cache.repository = root.value("repository", "");
        cache.url = root.value("url", "");
        cache.title = root.value("title", "");
        cache.revokedKeys = root.value("revokedKeys", std::vector<std::string>());
        for (const auto& [file, item] : root.at("files").items()) {
            Outcome o;
            o.stamp = {item.at("size").get<std::uint64_t>(), item.at("mtime").get<std::int64_t>()};
            o.sha256 = item.at("sha256").get<std::string>();
            if (item.contains("entry")) o.entry = readEntry(item.at("entry"));
            // An entry cached before signer keys were recorded is read again.
            if (o.entry && !o.entry->signer.empty() && o.entry->signerKey.empty()) continue;
            // So is one cached before digest lists were pinned.
            if (o.entry && !item.value("digestsPinned", false)) continue;
            o.bad = item.value("bad", "");
            o.images = item.value("images", std::vector<std::string>());
            cache.files[file] = std::move(o);
        }
    } catch (const std::exception&) {
        return {};  // a damaged cache costs a full run, nothing more
    }
    return cache;
}

void saveCache(const fs::path& folder, const Cache& cache) {
    Json files = Json::object();
    for (const auto& [file, o] : cache.files) {
        Json item = {{"size", o.stamp.size}, {"mtime", o.stamp.mtime}, {"sha256", o.sha256}};
        if (o.entry) item["entry"] = entryJson(*o.entry);
        if (o.entry) item["digestsPinned"] = true;
        if (!o.bad.empty()) item["bad"] = o.bad;
        if (!o.images.empty()) item["images"] = o.images;
        files[file] = std::move(item);
    }
    const Json root = {
        {"version", cache.version}, {"repository", cache.repository},   {"url", cache.url},
        {"title", cache.title},     {"revokedKeys", cache.revokedKeys}, {"files", files}};
    writeAtomically(folder / kCacheFile, root.dump(-1, ' ', false, Json::error_handler_t::replace),
                    true);
}

// The version and repository of the folder's index, or of the cache's
// when that names a higher version.
void previousIndex(const fs::path& folder, const Cache& cache, Index& next) {
    next.version = cache.version;
    next.repository = cache.repository;
    next.revokedKeys = cache.revokedKeys;
    const auto text = readOwnFile(folder / INDEX_FILE);
    if (!text) return;
    try {
        const Json root = Json::parse(*text);
        const auto version = root.at("version").get<std::uint64_t>();
        if (version < next.version) return;
        next.version = version;
        next.repository = root.value("repository", next.repository);
        for (const auto& key : root.value("revokedKeys", std::vector<std::string>()))
            next.revokedKeys.push_back(key);
    } catch (const std::exception&) {
    }
}

// The keys revoked before and those revoked now, sorted, each once.
std::vector<std::string> revokedKeys(const IndexOptions& options,
                                     const std::vector<std::string>& before) {
    std::set<std::string> all(before.begin(), before.end());
    for (const std::string& key : options.revoke) {
        const std::string lower = opc::detail::ascii_lower(key);
        if (lower.size() != 64 || lower.find_first_not_of("0123456789abcdef") != std::string::npos)
            fail(FaultKind::Other,
                 "the key to revoke \"" + key + "\" is not a SHA-256 of 64 hex digits");
        all.insert(lower);
    }
    return {all.begin(), all.end()};
}

bool isRevoked(const Index& index, const std::string& key) {
    return !key.empty() &&
           std::binary_search(index.revokedKeys.begin(), index.revokedKeys.end(), key);
}

// A text of the gallery as given, else as given before. It goes into
// pages and a command line a visitor copies: one line.
std::string galleryText(const std::string& given, const std::string& before, const char* what) {
    for (const unsigned char c : given)
        if (c < 0x20 || c == 0x7f)
            fail(FaultKind::Other,
                 std::string("the gallery's ") + what + " holds a control character");
    return given.empty() ? before : given;
}

// The identifier given, else the one the folder's index had.
std::string repositoryId(const IndexOptions& options, const std::string& previous) {
    const std::string id = options.repository.empty() ? previous : options.repository;
    if (id.empty())
        fail(FaultKind::Other,
             "a new repository needs an identifier (such as \"stable\") that its index names");
    if (!isRepositoryId(id))
        fail(FaultKind::Other, "the repository's identifier \"" + id +
                                   "\" is not 1 to 64 letters, digits and .-_, starting with a "
                                   "letter or a digit");
    return id;
}

std::vector<std::string> packageFiles(const fs::path& folder) {
    std::vector<std::string> files;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (it->path().extension() == std::string(".") + apps::APP_FILE_EXTENSION &&
            it->is_regular_file())
            files.push_back(name);
    }
    if (error)
        fail(FaultKind::CannotRead, "cannot list " + folder.string() + ": " + error.message());
    std::sort(files.begin(), files.end());
    return files;
}

// Whether the cached outcome stands: same stamp, or the same bytes, and
// its images still there.
bool reusable(const fs::path& folder, const Outcome& cached, Outcome& fresh) {
    const bool imagesThere =
        !cached.entry ||
        ((cached.entry->icon.empty() || fs::exists(folder / cached.entry->icon)) &&
         (cached.entry->screenshot.empty() || fs::exists(folder / cached.entry->screenshot)));
    if (!imagesThere) return false;
    if (cached.stamp.size == fresh.stamp.size && cached.stamp.mtime == fresh.stamp.mtime)
        return true;
    return cached.stamp.size == fresh.stamp.size && cached.sha256 == fresh.sha256;
}

// Fills `out` from the cache when it answers for the file: same stamp, or
// the same bytes.
bool answeredByCache(const fs::path& folder, const std::string& file, const Cache& cache,
                     Outcome& out) {
    const auto stamp = stampOf(folder / file);
    if (!stamp) return false;
    out.stamp = *stamp;
    const auto cached = cache.files.find(file);
    if (cached == cache.files.end()) return false;
    const bool sameStamp =
        cached->second.stamp.size == stamp->size && cached->second.stamp.mtime == stamp->mtime;
    if (!sameStamp) out.sha256 = integrity::sha256OfFile(folder / file);
    if (!reusable(folder, cached->second, out)) return false;
    out = cached->second;
    out.stamp = *stamp;
    return true;
}

// A package that vanished or cannot be read is left out; only a failure
// to write the repository stops the run.
void readOne(const fs::path& folder, const std::string& file, AppManifestSerializer& serializer,
             Outcome& out) {
    try {
        if (!stampOf(folder / file)) fail(FaultKind::CannotRead, "cannot be read");
        if (out.sha256.empty()) out.sha256 = integrity::sha256OfFile(folder / file);
        readPackage(folder, file, serializer, out);
    } catch (const Error& e) {
        if (e.kind() == FaultKind::CannotWrite) throw;
        out = Outcome{};
        out.bad = e.what();
    } catch (const std::exception& e) {
        out = Outcome{};
        out.bad = e.what();
    }
}

// Reads every package the cache cannot answer for, `jobs` at a time.
std::size_t readAll(const fs::path& folder, const std::vector<std::string>& files,
                    const Cache& cache, unsigned jobs, std::vector<Outcome>& outcomes) {
    std::atomic<std::size_t> next{0}, read{0};
    std::mutex errorMutex;
    std::exception_ptr error;
    auto worker = [&] {
        try {
            std::optional<AppManifestSerializer> serializer;
            for (std::size_t i; (i = next++) < files.size();) {
                bool cached = false;
                try {
                    cached = answeredByCache(folder, files[i], cache, outcomes[i]);
                } catch (const Error&) {
                    // read afresh, which says why it cannot be
                }
                if (!cached) {
                    if (!serializer) serializer.emplace();
                    readOne(folder, files[i], *serializer, outcomes[i]);
                    ++read;
                }
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(errorMutex);
            if (!error) error = std::current_exception();
            next = files.size();
        }
    };
    std::vector<std::thread> pool;
    for (unsigned j = 0; j < jobs; ++j) pool.emplace_back(worker);
    for (auto& thread : pool) thread.join();
    if (error) std::rethrow_exception(error);
    return read;
}

void makeFolder(const fs::path& path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error)
        fail(FaultKind::CannotWrite, "cannot create " + path.string() + ": " + error.message());
}

// Removes what an earlier run published and this one no longer lists.
void pruneFolder(const fs::path& folder, const std::set<std::string>& keep) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (!keep.count(name) && name.front() != '.') fs::remove(it->path(), error);
    }
}

// A page is rewritten only when it changed: an incremental run over a
// thousand apps touches the few that did.
void writeIfChanged(const fs::path& path, const std::string& bytes) {
    if (readOwnFile(path) == bytes) return;
    writeAtomically(path, bytes);
}

void writeGallery(const fs::path& folder, const Index& index, const GallerySite& site) {
    makeFolder(folder / kAppsFolder);
    std::set<std::string> pages, images;
    for (const auto& versions : appsOf(index)) {
        const std::string page = appPageName(versions.front()->guid);
        writeIfChanged(folder / kAppsFolder / page, appPage(versions, index, site));
        pages.insert(page);
    }
    for (const PackageEntry& e : index.packages)
        for (const std::string* image : {&e.icon, &e.screenshot})
            if (!image->empty()) images.insert(fs::path(*image).filename().string());
    pruneFolder(folder / kAppsFolder, pages);
    pruneFolder(folder / IMAGES_FOLDER, images);
    writeAtomically(folder / "index.html", galleryPage(index, site));
}

// Every index.json a reader can find has its signature in place: the
// signature of the next index goes in before the index does, under its
// version's name (and beside index.json for readers that know no other).
void writeSignatures(const fs::path& folder, std::uint64_t version, const std::string& text,
                     const integrity::Signer* signer) {
    if (!signer) {
        // A signature of an earlier index would refuse this one.
        std::error_code ignored;
        fs::remove(folder / INDEX_SIGNATURE_FILE, ignored);
        return;
    }
    const std::vector<unsigned char> signature = signer->sign(text);
    const std::string bytes(signature.begin(), signature.end());
    makeFolder(folder / INDEX_SIGNATURES_FOLDER);
    writeAtomically(folder / signatureFileOf(version), bytes, true);
    writeAtomically(folder / INDEX_SIGNATURE_FILE, bytes, true);
}

// The signature of the index just replaced stays for a reader that read
// that index a moment ago; older ones go.
void keepSignatures(const fs::path& folder, std::uint64_t version, bool signing) {
    std::set<std::string> keep;
    for (const std::uint64_t kept : {version, version - 1})
        if (signing) keep.insert(fs::path(signatureFileOf(kept)).filename().string());
    pruneFolder(folder / INDEX_SIGNATURES_FOLDER, keep);
}

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

IndexOutcome indexFolder(const fs::path& folder, const IndexOptions& options) {
    if (options.signingKey.empty() != options.signingCertificate.empty())
        fail(FaultKind::Other, "signing needs both a key and a certificate");
    // Read first, so that a bad key fails before any work.
    std::optional<integrity::Signer> signer;
    if (!options.signingKey.empty()) signer.emplace(options.signingKey, options.signingCertificate);
    const std::vector<std::string> files = packageFiles(folder);
    Cache cache = loadCache(folder);
    Index index;
    previousIndex(folder, cache, index);
    index.repository = repositoryId(options, index.repository);
    index.revokedKeys = revokedKeys(options, index.revokedKeys);
    GallerySite site;
    site.url = galleryText(options.url, cache.url, "URL");
    site.title = galleryText(options.title, cache.title, "title");
    if (signer) site.signerKey = signer->certificate().keyFingerprint;
    makeFolder(folder / IMAGES_FOLDER);

    std::vector<Outcome> outcomes(files.size());
    const auto jobs = static_cast<unsigned>(
        std::max<std::size_t>(1, std::min<std::size_t>(jobsOrCores(options.jobs), files.size())));
    IndexOutcome result;
    result.read = readAll(folder, files, cache, jobs, outcomes);

    result.firstIndex = index.version == 0;
    index.generated = options.now >= 0 ? options.now : nowSeconds();
    // Numbered by the clock, so that a repository rebuilt in a fresh folder
    // (or from a stale copy) still moves past every index its readers saw;
    // one more than the last when publications come faster than seconds.
    index.version = std::max<std::uint64_t>(
        index.version + 1, static_cast<std::uint64_t>(std::max<std::int64_t>(index.generated, 0)));
    index.expires = index.generated + options.validFor;
    Cache next;
    next.version = index.version;
    next.repository = index.repository;
    next.revokedKeys = index.revokedKeys;
    next.url = site.url;
    next.title = site.title;
    for (std::size_t i = 0; i < files.size(); ++i) {
        Outcome& o = outcomes[i];
        for (const std::string& image : o.images) result.leftOutImages.push_back({files[i], image});
        if (o.entry && isRevoked(index, o.entry->signerKey))
            result.badPackages.push_back(
                {files[i], "signed by a revoked key (SHA-256 " + o.entry->signerKey + ")"});
        else if (o.entry)
            index.packages.push_back(*o.entry);
        else
            result.badPackages.push_back({files[i], o.bad});
        if (!o.sha256.empty()) next.files[files[i]] = std::move(o);
    }
    // Two files of one version would make the index unreadable.
    std::set<std::string> releases;
    for (auto it = index.packages.begin(); it != index.packages.end();) {
        if (releases.insert(opc::detail::ascii_lower(it->guid) + ' ' + it->version).second) {
            ++it;
            continue;
        }
        result.badPackages.push_back(
            {it->file, "another file holds version " + it->version + " of this app"});
        it = index.packages.erase(it);
    }
    result.version = index.version;
    result.packages = index.packages.size();

    const std::string text = formatIndex(index);
    writeGallery(folder, index, site);
    writeSignatures(folder, index.version, text, signer ? &*signer : nullptr);
    writeAtomically(folder / INDEX_FILE, text, true);
    keepSignatures(folder, index.version, signer.has_value());
    saveCache(folder, next);
    return result;
}

}  // namespace tsappinstall::repository
