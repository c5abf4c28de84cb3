// CTempTree: a temporary folder tree for tests, removed with everything below it at destruction
// (folders made unreadable are opened up first; trees deeper than PATH_MAX go too). Paths are
// byte strings.
#pragma once

#include <string>

class CTempTree {
 public:
  // Below strBase when one is given, else below $TMPDIR or /tmp.
  explicit CTempTree(const std::string& strBase = std::string());
  ~CTempTree();
  CTempTree(const CTempTree&) = delete;
  CTempTree& operator=(const CTempTree&) = delete;

  const std::string& Root() const { return m_strRoot; }
  std::string Path(const std::string& relative) const;

  // Creates the folders on the way as needed. Each returns the full path.
  std::string MakeDir(const std::string& relative, unsigned mode = 0755);
  std::string MakeFile(const std::string& relative, const std::string& content = "",
                       unsigned mode = 0644);
  std::string MakeSymlink(const std::string& relative, const std::string& target);
  std::string MakeFifo(const std::string& relative);

 private:
  std::string m_strRoot;
};

// Removes the object szName below the folder iDirFd (AT_FDCWD: a path) with everything below it,
// relative to descriptors, so that trees deeper than PATH_MAX can go too. True when all went.
bool RemoveTreeAt(int iDirFd, const char* szName);

// Runs `body` in a child process that has dropped to the unprivileged user nobody, and returns
// its exit status (or 128 + signal). Lets root-run tests see real permission failures.
int RunAsNobody(int (*body)(void*), void* arg);
