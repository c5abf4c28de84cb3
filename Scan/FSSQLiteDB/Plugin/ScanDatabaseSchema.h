// ScanDatabaseSchema: the SQL of the scan-database store (CSQLiteScanDatabase): the schema of a
// new database and every statement the store prepares. docs/scan-database.md explains the
// schema. Paths and names are BLOBs, compared byte by byte; subtrees are path ranges
// [folder + "/", folder + "0") (see CScanDatabasePath), never LIKE patterns.
#pragma once

namespace ScanDatabaseSchema {

inline constexpr const char* kCreateSchema =
    "CREATE TABLE scan_items("
    " id INTEGER PRIMARY KEY,"
    " parent_id INTEGER NOT NULL,"
    " name BLOB NOT NULL,"
    " path BLOB NOT NULL,"
    " is_dir INTEGER NOT NULL,"
    " file_id INTEGER NOT NULL,"
    " attributes INTEGER NOT NULL,"
    " links INTEGER NOT NULL,"
    " file_size INTEGER NOT NULL,"
    " size_on_disk INTEGER NOT NULL,"
    " access_time INTEGER NOT NULL,"
    " creation_time INTEGER NOT NULL,"
    " modification_time INTEGER NOT NULL,"
    " change_time INTEGER NOT NULL,"
    " selected INTEGER NOT NULL,"
    " collect INTEGER NOT NULL,"
    // NULL: the canonical metadata text of the row's own fields (see CSQLiteScanDatabase).
    " metadata BLOB);"
    "CREATE UNIQUE INDEX scan_items_path ON scan_items(path);"
    "CREATE INDEX scan_items_folder ON scan_items(parent_id, name);";

#define FSSCAN_SCAN_ITEM_COLUMNS                                                                   \
  "id, name, path, is_dir, file_id, attributes, links, file_size, size_on_disk, access_time," \
  " creation_time, modification_time, change_time, selected, collect, metadata"

// A record is inserted; when its path is stored already (the insert fails on the unique path
// index, before it changes anything) the stored row is replaced in place, keeping its id. Both
// take the same parameters. Two statements are cheaper than one upsert for the common case,
// the insert of a new path.
inline constexpr const char* kInsert =
    "INSERT INTO scan_items(parent_id, name, path, is_dir, file_id, attributes, links, file_size,"
    " size_on_disk, access_time, creation_time, modification_time, change_time, selected,"
    " collect, metadata) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15,"
    " ?16)";
inline constexpr const char* kReplace =
    "UPDATE scan_items SET parent_id = ?1, name = ?2, is_dir = ?4, file_id = ?5,"
    " attributes = ?6, links = ?7, file_size = ?8, size_on_disk = ?9, access_time = ?10,"
    " creation_time = ?11, modification_time = ?12, change_time = ?13, selected = ?14,"
    " collect = ?15, metadata = ?16 WHERE path = ?3 RETURNING id";
inline constexpr const char* kFindByPath = "SELECT id, is_dir FROM scan_items WHERE path = ?1";
inline constexpr const char* kFindById = "SELECT is_dir FROM scan_items WHERE id = ?1";
inline constexpr const char* kSelectByPath =
    "SELECT " FSSCAN_SCAN_ITEM_COLUMNS " FROM scan_items WHERE path = ?1";
inline constexpr const char* kListChildren =
    "SELECT " FSSCAN_SCAN_ITEM_COLUMNS " FROM scan_items WHERE parent_id = ?1 ORDER BY name";
// Children waiting for a folder: their waiting parent id, a path below the folder, and no
// further '/' after the folder's prefix (the hash of a deeper parent may collide).
inline constexpr const char* kLinkChildren =
    "UPDATE scan_items SET parent_id = ?1 WHERE parent_id = ?2 AND path >= ?3 AND path < ?4"
    " AND instr(substr(path, ?5), X'2F') = 0";
inline constexpr const char* kDeleteById = "DELETE FROM scan_items WHERE id = ?1";
inline constexpr const char* kDeleteRange = "DELETE FROM scan_items WHERE path >= ?1 AND path < ?2";
// A moved record keeps its fields, or takes those of the new record (the parameters of kInsert
// and kReplace, and ?17 the id).
inline constexpr const char* kMoveRecord =
    "UPDATE scan_items SET path = ?1, name = ?2, parent_id = ?3 WHERE id = ?4";
inline constexpr const char* kMoveRecordWithFields =
    "UPDATE scan_items SET parent_id = ?1, name = ?2, path = ?3, is_dir = ?4, file_id = ?5,"
    " attributes = ?6, links = ?7, file_size = ?8, size_on_disk = ?9, access_time = ?10,"
    " creation_time = ?11, modification_time = ?12, change_time = ?13, selected = ?14,"
    " collect = ?15, metadata = ?16 WHERE id = ?17";
// Every path below the old folder: new folder path + the part after the old folder path.
// '||' yields text, so the result is cast back to a BLOB (the bytes are kept as they are).
inline constexpr const char* kMoveRange =
    "UPDATE scan_items SET path = CAST(?1 || substr(path, ?2) AS BLOB)"
    " WHERE path >= ?3 AND path < ?4";

#undef FSSCAN_SCAN_ITEM_COLUMNS

}  // namespace ScanDatabaseSchema
