#include "Platform/QiLibrary.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
// dlerror's text for the calling thread's last failure, never null.
std::string LastLoaderError() {
  const char* text = dlerror();
  return text != nullptr ? std::string(text) : std::string("unknown loader error");
}

bool IsRegularFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string ParentFolder(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// Checks a name or path before it reaches the loader.
CQiError ValidateName(const std::string& name) {
  if (name.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Library name is empty");
  if (name.find('\0') != std::string::npos) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Library name [%s] contains a NUL byte",
                          FXString::EscapeControl(name).c_str());
  }
  // The file name adds "lib" and ".so" to a logical name.
  if (name.size() + 6 >= PATH_MAX) {
    return QI_ERROR_ERRNO(ENAMETOOLONG, "Library name is longer than PATH_MAX (%zu bytes)",
                          name.size());
  }
  return CQiError();
}
}  // namespace

CQiLibrary::~CQiLibrary() {
  // A close failure cannot be reported from a destructor; the handle is gone either way.
  (void)Unload();
}

CQiLibrary::CQiLibrary(CQiLibrary&& other) noexcept
    : m_pHandle(other.m_pHandle),
      m_strName(std::move(other.m_strName)),
      m_strPath(std::move(other.m_strPath)) {
  other.m_pHandle = nullptr;
  other.m_strName.clear();
  other.m_strPath.clear();
}

CQiLibrary& CQiLibrary::operator=(CQiLibrary&& other) noexcept {
  if (this != &other) {
    (void)Unload();
    m_pHandle = other.m_pHandle;
    m_strName = std::move(other.m_strName);
    m_strPath = std::move(other.m_strPath);
    other.m_pHandle = nullptr;
    other.m_strName.clear();
    other.m_strPath.clear();
  }
  return *this;
}

std::string CQiLibrary::GetFileName(const std::string& logicalName) {
  return "lib" + logicalName + ".so";
}

std::string CQiLibrary::GetOwnFolder() {
  // Found once: the binary does not move while the process runs.
  static const std::string s_strOwnFolder = [] {
    Dl_info info{};
    struct link_map* map = nullptr;
    void* self = reinterpret_cast<void*>(&CQiLibrary::GetOwnFolder);
    if (dladdr1(self, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) {
      return std::string();
    }
    std::string binary;
    if (map != nullptr && map->l_name != nullptr && map->l_name[0] != '\0') {
      binary = map->l_name;  // a shared library (libScan.so)
    } else {
      // The main executable, which links the platform library statically: the loader knows it
      // only by argv[0], so ask the kernel for its path.
      char buffer[PATH_MAX];
      ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
      if (length <= 0) return std::string();
      binary.assign(buffer, static_cast<size_t>(length));
    }
    char* resolved = realpath(binary.c_str(), nullptr);
    if (resolved != nullptr) {
      binary = resolved;
      free(resolved);
    }
    return ParentFolder(binary);
  }();
  return s_strOwnFolder;
}

std::vector<std::string> CQiLibrary::GetSearchFolders() {
  std::vector<std::string> folders;
  if (const char* variable = getenv(kPluginPathVariable)) {
    for (std::string& folder : FXString::Split(variable, ':')) {
      if (!folder.empty()) folders.push_back(std::move(folder));
    }
  }
  std::string own = GetOwnFolder();
  if (!own.empty()) folders.push_back(own);
  return folders;
}

CQiError CQiLibrary::Load(const std::string& logicalNameOrPath) {
  QI_RETURN_IF_ERROR(ValidateName(logicalNameOrPath));
  if (IsLoaded()) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot load library [%s]: library [%s] is already loaded; unload it "
                          "first",
                          logicalNameOrPath.c_str(), m_strPath.c_str());
  }

  // A path: load that file and nothing else.
  if (logicalNameOrPath.find('/') != std::string::npos) {
    struct stat info;
    if (stat(logicalNameOrPath.c_str(), &info) != 0) {
      int err = errno;
      return QI_ERROR_ERRNO(err, "Library file [%s] cannot be accessed",
                            logicalNameOrPath.c_str());
    }
    if (!S_ISREG(info.st_mode)) {
      return QI_ERROR_ERRNO(ENOEXEC, "Library file [%s] is not a regular file",
                            logicalNameOrPath.c_str());
    }
    return Open(logicalNameOrPath, logicalNameOrPath);
  }

  const std::string fileName = GetFileName(logicalNameOrPath);
  const std::vector<std::string> folders = GetSearchFolders();
  for (const std::string& folder : folders) {
    std::string candidate = folder + "/" + fileName;
    if (IsRegularFile(candidate)) return Open(candidate, logicalNameOrPath);
  }

  // Not in our folders: the system loader's own search.
  dlerror();
  void* handle = dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::string loaderError = LastLoaderError();
    return QI_ERROR_ERRNO(ENOENT,
                          "Library [%s] not found: file [%s] is in none of the folders [%s] and "
                          "the system loader failed: %s",
                          logicalNameOrPath.c_str(), fileName.c_str(),
                          FXString::Join(folders, ", ").c_str(), loaderError.c_str());
  }
  m_pHandle = handle;
  m_strName = logicalNameOrPath;
  m_strPath = fileName;
  return CQiError();
}

CQiError CQiLibrary::Open(const std::string& path, const std::string& name) {
  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::string loaderError = LastLoaderError();
    return QI_ERROR_ERRNO(ENOEXEC, "Library [%s] cannot be loaded from [%s]: %s", name.c_str(),
                          path.c_str(), loaderError.c_str());
  }
  m_pHandle = handle;
  m_strName = name;
  m_strPath = path;
  return CQiError();
}

CQiError CQiLibrary::Unload() {
  if (m_pHandle == nullptr) return CQiError();
  void* handle = m_pHandle;
  std::string path;
  path.swap(m_strPath);
  m_pHandle = nullptr;
  m_strName.clear();
  dlerror();
  if (dlclose(handle) != 0) {
    std::string loaderError = LastLoaderError();
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Library [%s] cannot be unloaded: %s",
                          path.c_str(), loaderError.c_str());
  }
  return CQiError();
}

CQiError CQiLibrary::GetProcAddress(const std::string& exportName, void*& address) const {
  address = nullptr;
  if (m_pHandle == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No library loaded, Export=[%s]",
                          exportName.c_str());
  }
  if (exportName.empty() || exportName.find('\0') != std::string::npos) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Invalid export name [%s] for library [%s]",
                          FXString::EscapeControl(exportName).c_str(), m_strPath.c_str());
  }
  dlerror();
  void* symbol = dlsym(m_pHandle, exportName.c_str());
  if (symbol == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::ProcNotFound, "Export [%s] not found in library [%s]",
                          exportName.c_str(), m_strPath.c_str());
  }
  address = symbol;
  return CQiError();
}
