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
// TIME and DATE ("13:57:43.412345678 2026.11.23") become one comparable value, nanoseconds
// since 1970-01-01 as printed (no time zone applied): the records of several MDTs are merged by
// it. The digits after the dot are the nanoseconds as a number (a tool that does not pad them
// prints ".5" for 5 ns, so ".5" is before ".40"); at most nine digits. A time or date out of
// range, or a calendar date that does not exist, makes the line invalid.
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

  // TIME and DATE as nanoseconds since 1970-01-01 (Win32 13 when they are not a time and a
  // date); used by Parse, public for the merge order tables.
  static CQiError ParseTime(std::string_view time, std::string_view date, int64_t& llTime);

  int64_t m_llIndex = 0;
  int64_t m_llTime = 0;               // TIME DATE, nanoseconds since 1970-01-01
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
