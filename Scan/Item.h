// CItem: one file-system object (file, folder, link, device node) that a scan found.
//
// Every engine and path enumerator builds items; filters, output handlers, the scan-failures
// writer and the scan database read them. An item is always held through CItemPtr so that it can
// be handed to several consumers and to the worker that lists its children. Build items with
// std::make_shared (one allocation for the object and its reference count).
//
// This base class knows nothing about the object: every query answers "unknown" (attributes
// 0xFFFFFFFF, empty names, zero sizes, default time stamps). It carries what every item has:
//  - the work-unit bag (shared with every item of the work unit; may be empty),
//  - a private item bag, made empty on its first use (most items never need one), where engines put per-item values
//    (for example "errorCode" for the scan-failures writer, "SELECTED_FOR_BACKUP"),
//  - flag bits: 1 new-in-image, 2 selected (bits 4, 8 and 16 are reserved and stay clear),
//  - the interface table: owned CItemInterface objects indexed by a small id.
// Derived classes: CFindFirstItem (built from a file-data record), CFabricatedItem (built from
// paths alone), CCompoundItem (a find-first item with its scan-database row id).
//
// Constness: the queries are const except GetLastChangeTime (it may fetch the time through a
// hook) and initializeParentItem. Names are computed on first use into mutable fields, so even a
// const query may write the item.
//
// Threads: an item is built by one thread and may then be read by several consumers, but the
// lazily computed names, the flags and the interface table are written without a lock: an item
// must not be read and changed from two threads at once.
//
// Errors of AddInterface: Win32 13 for a negative id or a null interface, 8 when the table cannot
// grow, 85 when the id is already taken (the caller then still owns the interface).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FVBase.h"
#include "Platform/QiError.h"
#include "Platform/TimeStamp.h"
#include "Scan/ItemInterface.h"

class CItem;
using CItemPtr = std::shared_ptr<CItem>;

class CItem : public FVBase {
 public:
  static constexpr uint32_t kAttributesUnknown = 0xFFFFFFFFu;

  // Flag bits.
  static constexpr uint8_t kFlagNewInImage = 0x01;
  static constexpr uint8_t kFlagSelected = 0x02;

  // Slots added beyond the requested id when the interface table grows.
  static constexpr size_t kInterfaceTableGrowth = 8;

  explicit CItem(CBagPtr pWorkUnitBag);
  // Takes over the parent's new-in-image bit when the parent is given.
  CItem(const CItemPtr& pParent, CBagPtr pWorkUnitBag);
  ~CItem() override;
  CItem(const CItem&) = delete;
  CItem& operator=(const CItem&) = delete;

  virtual bool IsFolder() const;
  virtual bool IsRegularFile() const;
  virtual bool IsArchiveSet() const;
  virtual bool IsOffline() const;
  virtual bool IsReparsePoint() const;
  virtual uint32_t GetReparseTag() const;
  // The stat mode bits on this platform (file type in GetAttributes() & 0xF000); 0xFFFFFFFF
  // when unknown.
  virtual uint32_t GetAttributes() const;
  virtual CTimeStamp GetCreationTime() const;
  virtual CTimeStamp GetLastWriteTime() const;
  virtual CTimeStamp GetLastAccessTime() const;
  virtual CTimeStamp GetLastChangeTime();
  // The last component of the local path.
  virtual const std::string& GetItemName() const;
  // The path through which the library reads the object (a snapshot or mount path) and its
  // parent folder.
  virtual const std::string& GetLocalFullyQualifiedParentFolder() const;
  virtual const std::string& GetLocalFullyQualifiedItemName() const;
  // The path under which the object is reported (as the user knows it) and its parent folder.
  virtual const std::string& GetSourceFullyQualifiedParentFolder() const;
  virtual const std::string& GetSourceFullyQualifiedItemName() const;
  virtual uint64_t GetFileSize() const;
  virtual uint64_t GetFileSizeOnDisk() const;
  virtual uint64_t GetCompressedFileSize() const;
  virtual uint64_t GetHardLinkCount() const;
  virtual uint64_t GetFileId() const;
  virtual uint64_t GetParentFileId() const;
  virtual void initializeParentItem();

  CBagPtr GetWorkUnitBag() const { return m_pWorkUnitBag; }
  // Made on the first call; later calls return the same bag. Safe from several threads.
  CBagPtr GetItemBag() const;

  void setNewInImage() { m_uFlags |= kFlagNewInImage; }
  bool isNewInImage() const { return (m_uFlags & kFlagNewInImage) != 0; }
  void setSelected() { m_uFlags |= kFlagSelected; }
  bool isSelected() const { return (m_uFlags & kFlagSelected) != 0; }
  uint8_t GetFlags() const { return m_uFlags; }

  // The same as GetLocalFullyQualifiedItemName().
  const std::string& GetFullyQualifiedItemName() const { return GetLocalFullyQualifiedItemName(); }

  // Attaches an interface under an id; on success the item owns it.
  CQiError AddInterface(int iId, CItemInterface* pInterface);
  // The interface under the id, or null (negative id, beyond the table, empty slot).
  CItemInterface* GetInterface(int iId) const;
  // The number of slots in the interface table (empty ones included).
  size_t GetInterfaceTableSize() const { return m_vInterfaces.size(); }

 protected:
  // The empty string that the "unknown" answers refer to; lives for the whole process.
  static const std::string& EmptyString();
  // Splits a path into parent folder and name with the platform's splitter ("/" gives an empty
  // parent and the name "/"). A failure (empty path) leaves both strings as they were.
  static void SplitPath(const std::string& strPath, std::string& strParent, std::string& strName);

 private:
  CBagPtr m_pWorkUnitBag;
  mutable CBagPtr m_pItemBag;
  mutable std::once_flag m_onceItemBag;
  uint8_t m_uFlags = 0;
  // Declared last so that the interfaces are destroyed before the bags.
  std::vector<std::unique_ptr<CItemInterface>> m_vInterfaces;
};
