// A folder of the test's own, removed with everything in it.
#pragma once

#include <string>

namespace kest::test {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }

    // Path of an entry in the folder.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Whole content of a file; fails the test when it cannot be read.
std::string readFile(const std::string& path);

// Creates or replaces a file; fails the test when it cannot be written.
void writeFile(const std::string& path, const std::string& content);

}  // namespace kest::test
