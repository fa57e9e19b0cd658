#pragma once

// The store's records in its database: apps, their versions and files,
// the operations under way, and its users' small state (RootState.hpp).

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Sqlite.hpp"
#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {

struct VersionRow {
    std::int64_t id = 0;
    InstalledVersion version;  // its folder left empty: `folder` says where
    std::string folder;        // relative to ROOT/apps: "GUID/vVERSION-TOKEN"
};

// An operation that began and is not finished, as settling replays it.
enum class PendingAction {
    Install,  // its folder goes: the records never took it
    // An old version's folder to remove: its records stay, marked retired,
    // until it is gone. `purge`: the whole folder; otherwise the files
    // changed or added since the install are kept (and recorded as kept).
    Purge,
    Remove,    // an app to remove, to be finished (`purge`: changed and added files too)
    Rollback,  // an app whose link may have been switched before its records committed
};
// The action's name in the database, and back: a name this program does
// not know throws StoreError (BadDatabase) naming `database`.
const char* token(PendingAction action);
PendingAction pendingAction(const std::string& token, const std::string& database);

struct PendingRow {
    std::int64_t id = 0;
    PendingAction action = PendingAction::Install;
    std::string guid;
    std::string folder;
    bool purge = false;
};

// A file changed or added since its version was installed, kept when the
// version went; on record until purged.
struct KeptRow {
    std::string folder;  // the version's, relative to ROOT/apps
    std::string path;    // relative to `folder`
    std::string guid;
    std::string name;  // the version's
    std::string version;
};

// What fstat() said of an installed file when its record was made. While
// the file at its path still has the same inode, modification time, size
// and mode, an upgrade takes the recorded digest for its content rather
// than reading it all again. Only a file last written before a moment the
// file system stamped after it carries one (a change within the same tick
// of its clock would keep the time), so whatever writes the file later
// moves its time off the record, unless it sets the time back on purpose,
// which `audit`, reading every byte, still finds. Zero: none.
struct FileStamp {
    std::uint64_t inode = 0;
    std::int64_t modifiedNs = 0;
};
using FileStamps = std::unordered_map<std::string, FileStamp>;  // by path

class Records {
  public:
    explicit Records(const Database& db) : db_(db) {}

    std::optional<std::int64_t> currentId(const std::string& guid) const;
    std::optional<VersionRow> version(std::int64_t id) const;
    // Newest first; versions retired by an upgrade or a rollback, whose
    // folders are still to settle, are no longer the app's.
    std::vector<VersionRow> versionsOf(const std::string& guid) const;
    // Every version of every app, by GUID, newest first, with whether it
    // is its app's current one.
    std::vector<std::pair<VersionRow, bool>> allVersions() const;
    // The version, retired or not, whose folder this is.
    std::optional<VersionRow> versionAt(const std::string& folder) const;
    // GUIDs whose current version has this name.
    std::vector<std::string> guidsNamed(const std::string& name) const;
    // Every app's GUID and its current version's folder.
    std::vector<std::pair<std::string, std::string>> currentFolders() const;
    std::vector<InstalledFile> files(std::int64_t version) const;
    FileStamps stamps(std::int64_t version) const;
    std::vector<PendingRow> pending() const;

    // Writers: each its own statement, inside the caller's transaction
    // or, outside one, committed at once.
    std::int64_t addVersion(const InstalledVersion& version, const std::string& folder,
                            const std::vector<InstalledFile>& files, const FileStamps& stamps);
    void setCurrent(const std::string& guid, std::int64_t version);
    void dropVersion(std::int64_t id);
    void retireVersion(std::int64_t id);
    // The retired version whose folder this is, if any.
    void dropRetired(const std::string& folder);
    // Every version of the app, retired ones too, and its current one.
    void dropApp(const std::string& guid);
    std::int64_t addPending(PendingAction action, const std::string& guid,
                            const std::string& folder, bool purge);
    void dropPending(std::int64_t id);

    // Kept files, by folder and path: of one app, or with an empty GUID of all.
    std::vector<KeptRow> kept(const std::string& guid) const;
    // GUIDs with files kept under this name.
    std::vector<std::string> keptGuidsNamed(const std::string& name) const;
    void addKept(const KeptRow& row);
    void dropKept(const std::string& folder, const std::string& path);

    // Recorded changes, oldest first: of one app, or with an empty GUID of all.
    std::vector<HistoryEntry> history(const std::string& guid) const;
    // GUIDs whose last recorded change names the app so.
    std::vector<std::string> historyGuidsNamed(const std::string& name) const;
    void addHistory(const HistoryEntry& entry);

    std::optional<std::string> state(const std::string& scope, const std::string& key) const;
    void setState(const std::string& scope, const std::string& key, const std::string& value);
    void dropState(const std::string& scope, const std::string& key);

  private:
    const Database& db_;
};

}  // namespace tsappinstall::store::detail
