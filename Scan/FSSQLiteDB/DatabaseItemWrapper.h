// CDatabaseItemWrapper: conversion between scanned items (CItem) and scan-database records
// (FSDB::CDatabaseItem).
//
// GetDatabaseItem takes the item's inode, attributes, link count, sizes and the access,
// creation, modification (last write) and change times in Unix seconds, then forms the record's
// metadata. Name, path, id and the flags are the caller's to set.
//
// GetAsItem rebuilds a CCompoundItem from a record: its lstat data get inode = file id,
// mode = attributes (a directory record gets the folder type bits 0x4000 in place of whatever type
// bits the attributes hold), link count, size, block size 512, blocks = size on disk / 512
// (truncating, so size on disk 1000 reads back as 512), and the access, modification and change
// times. The item's database id is the record's id. With a local path, the item is read through
// that path and reported under the record's path; without one, the record's path serves for both.
//
// Errors: Win32 87 for a null item or record or a record without a path; "Cannot form metadata
// from member variables due to %s" when the metadata cannot be formed (no record is returned).
// Stateless; safe from any thread.
#pragma once

#include <string>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/FSSQLiteDB/DatabaseItem.h"
#include "Scan/Item.h"

class CDatabaseItemWrapper {
 public:
  static CQiError GetDatabaseItem(const CItemPtr& pItem, FSDB::CDatabaseItemPtr& pDatabaseItem);
  static CQiError GetAsItem(const FSDB::CDatabaseItemPtr& pDatabaseItem, CItemPtr& pItem,
                            const std::string& strLocalPath, const CBagPtr& pBag);
};
