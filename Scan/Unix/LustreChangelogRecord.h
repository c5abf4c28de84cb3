// CLustreChangelogRecord: one changelog record of a Lustre MDT as `lfs changelog` prints it,
// parsed, with the changelog type and the change it makes to the scan database.
//
// Line layout (fields apart by blanks):
//   INDEX TYPE TIME DATE FLAGS t=[FID] [j=JOB] [ef=X] [u=UID:GID] [nid=NID] [m=MODE] [x=XATTR]
//         [p=[PARENT FID] NAME [s=[SOURCE FID] sp=[SOURCE PARENT FID] OLD NAME]]
// TYPE is two digits and a name padded to five characters ("01CREAT", "10OPEN " followed by a
// second blank). The optional fields are skipped; records without p= (attribute changes,
// opens, closes) have no parent and no name. Names are printed raw, so a name may hold blanks:
// the name runs from the blank after p=[...] to the end of the line, and for a rename
// (08RENME) up to the first " s=[FID] sp=[FID] " that follows it, the old name being the rest.
// A name that itself holds text of exactly that shape cannot be told apart; such a record is
// taken at the first occurrence.
//
// FIDs are kept in their canonical text form (CLustreFID::ToString), so that they compare with
// the FIDs the scan database holds. Parse refuses a line that does not have this shape (Win32
// 13, "Invalid Line read from changelog file ..." by the caller): never a record half read.
//
// A record is a value; Parse may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/QiError.h"

// The record's type, from its type token (21 for a token this engine does not know).
enum LustreChangelogType : int {
  kLustreMark = 0, kLustreCreate = 1, kLustreMkdir = 2, kLustreHardlink = 3, kLustreSoftlink = 4,
  kLustreMknod = 5, kLustreUnlink = 6, kLustreRmdir = 7, kLustreRename = 8, kLustreRenameTo = 9,
  kLustreAtime = 19, kLustreMigrate = 20, kLustreUnknownType = 21
};

// What the record does to the scan database.
enum LustreChangeType : int {
  kLustreChangeNone = 0, kLustreFileCreated = 1, kLustreFolderCreated = 2, kLustreFileRemoved = 3,
  kLustreFolderRemoved = 4, kLustreRenamed = 5, kLustreModified = 6, kLustreHardlinkAdded = 7
};

class CLustreChangelogRecord {
 public:
  // The changelog type of a type token (the token's name part may carry padding blanks).
  static LustreChangelogType TypeOfToken(std::string_view token);
  static LustreChangeType ChangeOfType(LustreChangelogType eType);

  // Parses one line (a trailing '\n' is dropped). Win32 13 naming the fault when the line is
  // not a record.
  static CQiError Parse(std::string_view line, CLustreChangelogRecord& record);

  int64_t m_llIndex = 0;
  LustreChangelogType m_eType = kLustreMark;
  LustreChangeType m_eChange = kLustreChangeNone;
  std::string m_strTypeToken;         // "01CREAT"
  std::string m_strTargetFID;         // "TargetFID"
  std::string m_strTargetParentFID;   // "TargetParentFID" (empty without p=)
  std::string m_strName;              // "sName"; for a rename "sNewName"
  std::string m_strSourceFID;         // "SourceFID" (renames)
  std::string m_strSourceParentFID;   // "SourceParentFID" (renames)
  std::string m_strOldName;           // "sOldName" (renames)

  bool HasParent() const { return !m_strTargetParentFID.empty(); }
  bool HasSource() const { return !m_strSourceFID.empty(); }
};
