#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kest::test {

TempDir::TempDir() {
    path_ = (std::filesystem::temp_directory_path() / "kest-test-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << path_;
}

TempDir::~TempDir() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    EXPECT_FALSE(error) << path_ << ": " << error.message();
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    EXPECT_TRUE(out) << path;
}

}  // namespace kest::test
