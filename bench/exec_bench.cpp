// Running a program to its end: sysExec() beside posix_spawn, popen and libuv's process API.
//
// "processor" is user and system time of this process and of its children together, "wall" the time
// until the result is there. Our wall time contains the pauses between two looks at the program,
// which are part of the contract.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uv.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <kest/utils/exec.h>

namespace {

constexpr size_t kOutputSize = 1 << 20;
constexpr size_t kChunk = 16384;
constexpr size_t kLargeProcess = 64 << 20;

using Arguments = std::vector<std::string>;

// What to run, and how much it writes.
struct Program {
    Arguments arguments;
    size_t output;
};

// A run gives the number of bytes that the program wrote, -1 when it failed.
using Run = long (*)(const Program&);

std::vector<char*> pointersTo(const Arguments& arguments) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

long runOurs(const Program& program) {
    const Arguments& all = program.arguments;
    std::string output;
    const int status =
        kest::utils::sysExec(nullptr, program.output != 0 ? &output : nullptr, nullptr, 0, 0, 0,
                             all.front(), Arguments(all.begin() + 1, all.end()));
    return status == 0 ? static_cast<long>(output.size()) : -1;
}

template <typename Read>
long collect(std::string& output, Read&& readChunk) {
    char chunk[kChunk];
    for (auto got = readChunk(chunk); got > 0; got = readChunk(chunk))
        output.append(chunk, static_cast<size_t>(got));
    return static_cast<long>(output.size());
}

long runSpawn(const Program& program) {
    int ends[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    if (program.output != 0) {
        if (pipe2(ends, O_CLOEXEC) != 0) return -1;
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    }
    pid_t pid = -1;
    const auto arguments = pointersTo(program.arguments);
    const int error = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    std::string output;
    if (program.output != 0) {
        close(ends[1]);
        collect(output, [&](char* chunk) { return read(ends[0], chunk, kChunk); });
        close(ends[0]);
    }
    int status = -1;
    if (error != 0 || waitpid(pid, &status, 0) != pid || status != 0) return -1;
    return static_cast<long>(output.size());
}

long runPopen(const Program& program) {
    std::string line;
    for (const std::string& argument : program.arguments)
        line += argument + " ";
    FILE* const stream = popen(line.c_str(), "re");
    if (stream == nullptr) return -1;
    std::string output;
    collect(output, [&](char* chunk) { return fread(chunk, 1, kChunk, stream); });
    return pclose(stream) == 0 ? static_cast<long>(output.size()) : -1;
}

// One run with libuv: a loop that ends when the process and its pipe are closed.
struct UvRun {
    uv_process_t process = {};
    uv_pipe_t pipe = {};
    char chunk[kChunk];
    std::string output;
    int64_t exitStatus = -1;

    static UvRun* of(const void* data) { return static_cast<UvRun*>(const_cast<void*>(data)); }
};

void uvExited(uv_process_t* process, int64_t exitStatus, int signal) {
    UvRun::of(process->data)->exitStatus = signal == 0 ? exitStatus : -1;
    uv_close(reinterpret_cast<uv_handle_t*>(process), nullptr);
}

void uvBuffer(uv_handle_t* handle, size_t, uv_buf_t* buffer) {
    *buffer = uv_buf_init(UvRun::of(handle->data)->chunk, kChunk);
}

void uvRead(uv_stream_t* stream, ssize_t got, const uv_buf_t* buffer) {
    if (got >= 0) {
        UvRun::of(stream->data)->output.append(buffer->base, static_cast<size_t>(got));
    } else {
        uv_close(reinterpret_cast<uv_handle_t*>(stream), nullptr);
    }
}

long runUv(const Program& program) {
    uv_loop_t* const loop = uv_default_loop();
    UvRun run;
    run.process.data = run.pipe.data = &run;
    auto arguments = pointersTo(program.arguments);
    uv_stdio_container_t streams[3] = {};
    if (program.output != 0) {
        uv_pipe_init(loop, &run.pipe, 0);
        streams[1].flags = static_cast<uv_stdio_flags>(UV_CREATE_PIPE | UV_WRITABLE_PIPE);
        streams[1].data.stream = reinterpret_cast<uv_stream_t*>(&run.pipe);
    }
    uv_process_options_t options = {};
    options.file = arguments[0];
    options.args = arguments.data();
    options.exit_cb = uvExited;
    options.stdio_count = 3;
    options.stdio = streams;
    if (uv_spawn(loop, &run.process, &options) != 0) return -1;
    if (program.output != 0) uv_read_start(streams[1].data.stream, uvBuffer, uvRead);
    uv_run(loop, UV_RUN_DEFAULT);
    return run.exitStatus == 0 ? static_cast<long>(run.output.size()) : -1;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double processorTime(int who) {
    rusage usage = {};
    getrusage(who, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Times whole runs; the share of this process alone is the counter "parent".
void measure(benchmark::State& state, Run run, const Program& program, bool processor) {
    double parent = 0;
    for (auto _ : state) {
        const double self = processorTime(RUSAGE_SELF);
        const double children = processorTime(RUSAGE_CHILDREN);
        const auto begin = std::chrono::steady_clock::now();
        if (run(program) != static_cast<long>(program.output)) {
            state.SkipWithError("the program failed");
            break;
        }
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
        const double own = processorTime(RUSAGE_SELF) - self;
        parent += own;
        const double all = own + processorTime(RUSAGE_CHILDREN) - children;
        state.SetIterationTime(processor ? all : wall.count());
    }
    state.counters["parent"] = benchmark::Counter(parent, benchmark::Counter::kAvgIterations);
}

// A daemon of some size has more to copy for a fork.
void measureInLargeProcess(benchmark::State& state, Run run, const Program& program,
                           bool processor) {
    const std::vector<char> touched(kLargeProcess, 'x');
    benchmark::DoNotOptimize(touched.data());
    measure(state, run, program, processor);
}

void registerAll() {
    const struct {
        const char* name;
        Run run;
    } contestants[] = {
        {"ours", runOurs}, {"posix_spawn", runSpawn}, {"popen", runPopen}, {"libuv", runUv}};
    const Program quiet = {{"/bin/true"}, 0};
    const Program chatty = {{"/usr/bin/head", "-c", std::to_string(kOutputSize), "/dev/zero"},
                            kOutputSize};
    const struct {
        const char* name;
        const Program& program;
        decltype(&measure) how;
    } cases[] = {{"true", quiet, measure},
                 {"true_from_64MiB", quiet, measureInLargeProcess},
                 {"output_1MiB", chatty, measure}};
    for (const bool processor : {true, false}) {
        for (const auto& [name, program, how] : cases) {
            for (const auto& contestant : contestants) {
                const std::string title =
                    std::string(processor ? "processor/" : "wall/") + contestant.name + "/" + name;
                benchmark::RegisterBenchmark(
                    title.c_str(),
                    [how = how, run = contestant.run, program = program,
                     processor](benchmark::State& state) { how(state, run, program, processor); })
                    ->UseManualTime()
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

const bool registered = (registerAll(), true);

}  // namespace
