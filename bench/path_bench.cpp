// Path texts, listing a tree and copying a file: ours beside std::filesystem and cp.
//
// Cases are named "<pattern>/<contestant>/<parameter>": components of the path, files in the tree,
// MiB in the file. Copying is judged by wall time, as most of what cp does is another process's.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>

#include <kest/utils/fileutils.h>

#include "require.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Listing = std::map<std::string, bool>;

constexpr int kFilesPerFolder = 100;

// A folder that is removed with its object.
class Folder {
  public:
    Folder() {
        std::string name = fs::canonical(fs::temp_directory_path()) / "kest-path-bench-XXXXXX";
        require(::mkdtemp(name.data()) != nullptr, "mkdtemp");
        path_ = name;
    }
    ~Folder() { fs::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const fs::path& path() const { return path_; }

    void fill(long files) const {
        for (long i = 0; i < files; ++i) {
            const fs::path folder = path_ / ("recordings-" + std::to_string(i / kFilesPerFolder));
            if (i % kFilesPerFolder == 0) fs::create_directory(folder);
            std::ofstream(folder / ("clip-" + std::to_string(i) + ".mp4"));
        }
    }

  private:
    fs::path path_;
};

// Names, half of which are taken back, and what stands for nothing, in turns.
std::string samplePath(long components) {
    std::string path;
    for (long i = 0; i < components; ++i) {
        const char* const kinds[] = {"/recordings", "/camera", "/..", "/.", "//"};
        path += kinds[i % 5];
    }
    return path;
}

std::string normalizeOurs(const std::string& path) {
    std::string out;
    kest::utils::normalizePath(path, out);
    return out;
}

std::string normalizeStd(const std::string& path) {
    return fs::path(path).lexically_normal();
}

// From a path object that is ready: what is left when its parsing is not counted.
void normalizeParsed(benchmark::State& state) {
    const fs::path path = samplePath(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(path.lexically_normal());
}

template <std::string (*normalize)(const std::string&)>
void normalizeText(benchmark::State& state) {
    const std::string path = samplePath(state.range(0));
    require(normalize(path) == fs::path(path).lexically_normal(), "the results differ");
    for (auto _ : state)
        benchmark::DoNotOptimize(normalize(path));
}

Listing listOurs(const fs::path& folder) {
    Listing out;
    kest::utils::listFolder(folder, out, true);
    return out;
}

Listing listStd(const fs::path& folder) {
    Listing out;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        const bool isFolder = entry.is_directory();
        std::string path = fs::canonical(entry.path());
        if (isFolder) path += '/';
        out[std::move(path)] = isFolder;
    }
    return out;
}

template <Listing (*list)(const fs::path&)>
void listTree(benchmark::State& state) {
    const Folder folder;
    folder.fill(state.range(0));
    require(list(folder.path()) == listStd(folder.path()), "the listings differ");
    for (auto _ : state)
        benchmark::DoNotOptimize(list(folder.path()));
}

bool copyOurs(const char* src, const char* dst) {
    return kest::utils::copyFile(src, dst);
}

bool copyCp(const char* src, const char* dst) {
    char* const arguments[] = {const_cast<char*>("cp"), const_cast<char*>(src),
                               const_cast<char*>(dst), nullptr};
    pid_t child = -1;
    int status = -1;
    return ::posix_spawnp(&child, "cp", nullptr, nullptr, arguments, environ) == 0 &&
           ::waitpid(child, &status, 0) == child && status == 0;
}

template <bool (*copy)(const char*, const char*)>
void copyLarge(benchmark::State& state) {
    const Folder folder;
    const std::string src = folder.path() / "src", dst = folder.path() / "dst";
    const std::string block(1 << 20, 'x');
    {
        std::ofstream out(src, std::ios::binary);
        for (long i = 0; i < state.range(0); ++i)
            out << block;
    }
    for (auto _ : state)
        require(copy(src.c_str(), dst.c_str()), "copy");
    require(fs::file_size(src) == fs::file_size(dst), "the copy is short");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * (1 << 20));
}

BENCHMARK_TEMPLATE(normalizeText, normalizeOurs)->Name("normalize/ours")->Arg(5)->Arg(30);
BENCHMARK_TEMPLATE(normalizeText, normalizeStd)
    ->Name("normalize/lexically_normal")
    ->Arg(5)
    ->Arg(30);
BENCHMARK(normalizeParsed)->Name("normalize/lexically_normal_parsed")->Arg(5)->Arg(30);
BENCHMARK_TEMPLATE(listTree, listOurs)->Name("list/ours")->Arg(10000);
BENCHMARK_TEMPLATE(listTree, listStd)->Name("list/recursive_directory_iterator")->Arg(10000);
BENCHMARK_TEMPLATE(copyLarge, copyOurs)->Name("copy/ours")->Arg(64)->UseRealTime();
BENCHMARK_TEMPLATE(copyLarge, copyCp)->Name("copy/cp")->Arg(64)->UseRealTime();

}  // namespace
