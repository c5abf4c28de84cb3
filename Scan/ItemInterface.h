// CItemInterface: the base of everything that can be attached to an item (CItem::AddInterface):
// analytics attributes, data-classification records, ...
//
// Ownership: the item owns its interfaces and destroys them through this virtual destructor.
// The interface keeps a raw back pointer to its item, which it does not own; the pointer stays
// valid for the interface's whole life because the item outlives what it owns.
// Threads: like its item, an interface is built by one thread and may then be read by several.
#pragma once

#include <string>

class CItem;

class CItemInterface {
 public:
  explicit CItemInterface(CItem* pItem);
  virtual ~CItemInterface();
  CItemInterface(const CItemInterface&) = delete;
  CItemInterface& operator=(const CItemInterface&) = delete;

  // A description for log lines; empty in the base.
  virtual std::string AsString() const;

  CItem* GetItem() const { return m_pItem; }

 protected:
  CItem* m_pItem;  // back pointer, not owned
};
