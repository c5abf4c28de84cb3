// CQiLibrary: loads a plug-in library by logical name and resolves its exports.
//
// A logical name ("ZrFSSQLiteDB") maps to the file name "lib" + name + ".so". Load looks for that
// file, in order, in
//   1. each folder of the environment variable FSSCAN_PLUGIN_PATH (colon-separated, empty
//      entries ignored), then
//   2. the folder of the binary that holds this code: the scan library libScan.so in the product;
//      in a test or tool executable that links the platform library statically, the
//      executable's own folder;
// and loads the first regular file found there. A file that is found but does not load (not a
// shared object, a missing dependency, an unresolved symbol) is an error: the search does not
// go on past it. When no folder holds the file, the system loader's own search is tried
// (LD_LIBRARY_PATH, the loader cache, the system folders). A name that contains '/' is a path
// and is loaded as it is, without any search.
//
// Libraries are opened with RTLD_NOW | RTLD_LOCAL: every symbol is bound at load time, so a
// broken plug-in fails Load rather than a later call, and its symbols do not leak into other
// plug-ins.
//
// Errors (every message names the library; dlerror's text is appended where the loader failed):
//   errno ENOENT        the library is in none of the folders and the system loader failed;
//                       a path that does not exist
//   errno ENOEXEC       a file was found but could not be loaded (not a shared object, ...)
//   errno ENAMETOOLONG  a name or path longer than PATH_MAX
//   Win32 87            an empty name or export name, a NUL byte, Load on a loaded object
//   Win32 6             GetProcAddress/Resolve on an object that holds no library
//   Win32 1287          the export is missing: "Export [%s] not found in library [%s]"
//
// Ownership: the object owns its library handle and closes it in Unload or its destructor.
// Function pointers resolved from it are valid only while it stays loaded; the owner keeps the
// CQiLibrary alive for as long as it uses them (the system loader counts references, so two
// objects that load the same file share one mapping, which goes away with the last).
//
// Threads: Load and Unload change the object and need the caller's serialisation; resolving
// exports from a loaded object is safe from any number of threads at once.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Platform/QiError.h"

class CQiLibrary {
 public:
  static constexpr const char* kPluginPathVariable = "FSSCAN_PLUGIN_PATH";

  CQiLibrary() = default;
  ~CQiLibrary();
  CQiLibrary(const CQiLibrary&) = delete;
  CQiLibrary& operator=(const CQiLibrary&) = delete;
  CQiLibrary(CQiLibrary&& other) noexcept;
  CQiLibrary& operator=(CQiLibrary&& other) noexcept;

  // Loads a library by logical name, or a file when the name contains '/'.
  CQiError Load(const std::string& logicalNameOrPath);
  // Closes the library; does nothing when none is loaded.
  CQiError Unload();

  bool IsLoaded() const { return m_pHandle != nullptr; }
  // The name given to Load and the file actually loaded (as found: folder + file name, or the
  // bare file name when the system loader found it). Empty when nothing is loaded.
  const std::string& GetName() const { return m_strName; }
  const std::string& GetPath() const { return m_strPath; }

  // The address of an exported symbol (null on failure); a missing export (or one whose address
  // is null) is Win32 1287.
  CQiError GetProcAddress(const std::string& exportName, void*& address) const;

  // Resolves an exported function into a typed pointer (set to null on failure):
  //   int (*answer)() = nullptr;
  //   QI_RETURN_IF_ERROR(library.Resolve("FsScanTestModuleAnswer", answer));
  template <typename T>
  CQiError Resolve(const std::string& exportName, T& function) const {
    static_assert(std::is_pointer_v<T>, "Resolve needs a function or object pointer");
    void* address = nullptr;
    CQiError error = GetProcAddress(exportName, address);
    function = reinterpret_cast<T>(address);  // null on failure
    return error;
  }

  // "lib" + logicalName + ".so".
  static std::string GetFileName(const std::string& logicalName);
  // The folders Load searches, in order (see above); the own folder is left out when it cannot
  // be found.
  static std::vector<std::string> GetSearchFolders();
  // The folder of the binary that holds this code, as an absolute path; empty if unknown.
  static std::string GetOwnFolder();

 private:
  CQiError Open(const std::string& path, const std::string& name);

  void* m_pHandle = nullptr;
  std::string m_strName;
  std::string m_strPath;
};

using CQiLibraryPtr = std::shared_ptr<CQiLibrary>;
