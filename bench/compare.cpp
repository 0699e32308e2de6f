/// Runs every writer over the same frames and prints what each of them costs, as Markdown.
///
/// Every run is a process of its own, so that its memory and its CPU time are its own. Runs are
/// interleaved in rounds, in an order that turns from round to round; ratios are made within a
/// round and their median is shown. Calls are timed one by one only in rounds apart, because
/// reading the clock costs as much as some of the calls.
#include <sys/mman.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <new>
#include <sstream>
#include <stdexcept>

#include "Workload.h"
#include "Writers.h"

namespace {

struct Options {
    std::string directory = "/dev/shm";
    std::vector<std::string> workloads;
    std::vector<std::string> writers;
    unsigned rounds = 5;
    unsigned timedRounds = 2;
    bool quick = false;
};

/// What one run measured; filled in by the child process.
struct Measurement {
    bool done;
    double cpu;           // seconds of all samples, without opening and closing
    double wall;          // seconds of the same
    double closing;       // wall seconds of closing
    double closingCpu;    // CPU seconds of closing
    double memory;        // bytes by which anonymous resident memory grew
    double writeCalls;    // system calls that write, closing excluded
    double queryAtStart;  // seconds of one query for the size of the index; 0 without it
    double queryAtEnd;
};

double Now(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Bytes of resident memory that is neither a file's nor shared.
double AnonymousMemory() {
    std::ifstream statm("/proc/self/statm");
    double total = 0;
    double resident = 0;
    double shared = 0;
    statm >> total >> resident >> shared;
    return (resident - shared) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double WriteCalls() {
    std::ifstream io("/proc/self/io");
    std::string name;
    for (double value = 0; io >> name >> value;)
        if (name == "syscw:") return value;
    return 0;
}

/// Memory that parent and children share, in place before anything is measured.
class SharedMemory {
public:
    explicit SharedMemory(size_t bytes) : m_bytes(bytes) {
        m_place = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (m_place == MAP_FAILED) throw std::bad_alloc();
    }
    ~SharedMemory() { munmap(m_place, m_bytes); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    void* place() const { return m_place; }

private:
    size_t m_bytes;
    void* m_place;
};

/// Writes `count` samples; with `latencies`, notes the nanoseconds of each call there.
void Feed(Writer& writer, Workload::Cursor& cursor, uint64_t count, uint32_t* latencies) {
    if (latencies == nullptr) {
        for (uint64_t i = 0; i < count; ++i)
            writer.Write(cursor.Next());
        return;
    }
    for (uint64_t i = 0; i < count; ++i) {
        const Sample sample = cursor.Next();
        const double before = Now(CLOCK_MONOTONIC);
        writer.Write(sample);
        latencies[i] = static_cast<uint32_t>((Now(CLOCK_MONOTONIC) - before) * 1e9);
    }
}

double TimeIndexQuery(Writer& writer) {
    constexpr int kQueries = 1000;
    if (!writer.QueryIndexSize()) return 0;
    const double before = Now(CLOCK_MONOTONIC);
    for (int i = 0; i < kQueries; ++i)
        writer.QueryIndexSize();
    return (Now(CLOCK_MONOTONIC) - before) / kQueries;
}

void Measure(Writer& writer, const Workload& workload, const std::string& path, Measurement& result,
             uint32_t* latencies) {
    writer.Open(path, workload.shape());
    Workload::Cursor cursor(workload);
    const uint64_t first = std::min<uint64_t>(100, workload.samples() / 2);
    const double memory = AnonymousMemory();
    Feed(writer, cursor, first, latencies);
    if (latencies != nullptr) result.queryAtStart = TimeIndexQuery(writer);
    const double calls = WriteCalls();
    const double cpu = Now(CLOCK_PROCESS_CPUTIME_ID);
    const double wall = Now(CLOCK_MONOTONIC);
    const uint64_t rest = workload.samples() - first;
    Feed(writer, cursor, rest, latencies == nullptr ? nullptr : latencies + first);
    const double scale = static_cast<double>(workload.samples()) / static_cast<double>(rest);
    result.cpu = (Now(CLOCK_PROCESS_CPUTIME_ID) - cpu) * scale;
    result.wall = (Now(CLOCK_MONOTONIC) - wall) * scale;
    result.writeCalls = (WriteCalls() - calls) * scale;
    result.memory = AnonymousMemory() - memory;
    if (latencies != nullptr) result.queryAtEnd = TimeIndexQuery(writer);
    const double closing = Now(CLOCK_MONOTONIC);
    const double closingCpu = Now(CLOCK_PROCESS_CPUTIME_ID);
    writer.Close();
    result.closingCpu = Now(CLOCK_PROCESS_CPUTIME_ID) - closingCpu;
    result.closing = Now(CLOCK_MONOTONIC) - closing;
    result.done = true;
}

/// One run in a process of its own.
Measurement RunOnce(const WriterKind& kind, const Workload& workload, const Options& options,
                    const SharedMemory& results, uint32_t* latencies) {
    const std::string path = options.directory + "/kx_mp4_compare.mp4";
    auto* const result = new (results.place()) Measurement{};
    std::cout.flush();
    const pid_t child = fork();
    if (child == -1) throw std::runtime_error("fork failed");
    if (child == 0) {
        try {
            Measure(*kind.make(), workload, path, *result, latencies);
        } catch (const std::exception& failure) {
            std::cerr << kind.name << ": " << failure.what() << '\n';
        }
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    std::error_code ignored;
    const auto size = std::filesystem::file_size(path, ignored);
    std::filesystem::remove(path, ignored);
    std::filesystem::remove(path + ".info", ignored);
    if (!result->done || size < workload.bytes())
        throw std::runtime_error(kind.name + " did not record " + workload.shape().title);
    return *result;
}

/// All runs of one writer in one workload.
struct Row {
    std::vector<Measurement> runs;
    std::vector<Measurement> timedRuns;
    std::vector<uint32_t> latencies;  // nanoseconds, of all timed runs
};

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

double MedianOf(const std::vector<Measurement>& runs, double Measurement::*value) {
    std::vector<double> values;
    for (const Measurement& run : runs)
        values.push_back(run.*value);
    return Median(values);
}

class Comparison {
public:
    Comparison(const Workload& workload, const Options& options)
        : m_workload(workload),
          m_options(options),
          m_results(sizeof(Measurement)),
          m_latencies(workload.samples() * sizeof(uint32_t)) {
        for (WriterKind& kind : WriterKinds())
            if (IsWanted(kind.name)) m_kinds.push_back(std::move(kind));
        if (m_kinds.empty()) throw std::runtime_error("there is no such writer");
    }

    void Run() {
        // Memory that the machine hands out for the first time costs more than memory in use
        // before; the first round would pay for all.
        RunOnce(m_kinds.front(), m_workload, m_options, m_results, nullptr);
        for (unsigned round = 0; round < m_options.rounds; ++round)
            for (const WriterKind& kind : Turned(round))
                m_rows[kind.name].runs.push_back(
                    RunOnce(kind, m_workload, m_options, m_results, nullptr));
        auto* const latencies = static_cast<uint32_t*>(m_latencies.place());
        for (unsigned round = 0; round < m_options.timedRounds; ++round)
            for (const WriterKind& kind : Turned(round)) {
                Row& row = m_rows[kind.name];
                row.timedRuns.push_back(RunOnce(kind, m_workload, m_options, m_results, latencies));
                row.latencies.insert(row.latencies.end(), latencies,
                                     latencies + m_workload.samples());
            }
    }

    void Print() {
        const auto samples = static_cast<double>(m_workload.samples());
        std::printf("### %s\n\n%u pictures, %.0f frames of both tracks, %.0f bytes a frame\n\n",
                    m_workload.shape().title.c_str(), m_workload.shape().pictures, samples,
                    static_cast<double>(m_workload.bytes()) / samples);
        std::puts(
            "| writer | CPU us | wall us | p50 us | p99 us | p99.9 us | max us | close ms "
            "(CPU) | "
            "memory B | write calls | CPU / libavformat | CPU / one write |");
        std::puts("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|");
        for (const WriterKind& kind : m_kinds)
            PrintRow(kind.name, m_rows[kind.name]);
        std::puts("");
        for (const WriterKind& kind : m_kinds)
            PrintQuery(kind.name, m_rows[kind.name]);
        std::fflush(stdout);
    }

private:
    bool IsWanted(const std::string& name) const {
        const auto& wanted = m_options.writers;
        return wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end();
    }

    std::vector<WriterKind> Turned(unsigned round) const {
        auto kinds = m_kinds;
        const auto shift = static_cast<std::ptrdiff_t>(round % kinds.size());
        std::rotate(kinds.begin(), kinds.begin() + shift, kinds.end());
        return kinds;
    }

    void PrintRow(const std::string& name, Row& row) {
        const auto samples = static_cast<double>(m_workload.samples());
        const auto perSample = [&](double Measurement::*value) {
            return MedianOf(row.runs, value) / samples;
        };
        std::sort(row.latencies.begin(), row.latencies.end());
        std::printf(
            "| %s | %.3f | %.3f | %s | %s | %s | %s | %.1f (%.1f) | %.1f | %.3f | %s | %s |\n",
            name.c_str(), perSample(&Measurement::cpu) * 1e6, perSample(&Measurement::wall) * 1e6,
            Percentile(row, 0.5).c_str(), Percentile(row, 0.99).c_str(),
            Percentile(row, 0.999).c_str(), Percentile(row, 1).c_str(),
            MedianOf(row.runs, &Measurement::closing) * 1e3,
            MedianOf(row.runs, &Measurement::closingCpu) * 1e3, perSample(&Measurement::memory),
            perSample(&Measurement::writeCalls), Ratio(row, kLibavformat).c_str(),
            Ratio(row, kOneWrite).c_str());
    }

    static void PrintQuery(const std::string& name, const Row& row) {
        const double start = MedianOf(row.timedRuns, &Measurement::queryAtStart);
        const double end = MedianOf(row.timedRuns, &Measurement::queryAtEnd);
        if (start > 0)
            std::printf("GetMoovSize, %s: %.0f ns after 100 frames, %.0f ns at the end\n\n",
                        name.c_str(), start * 1e9, end * 1e9);
    }

    static std::string Percentile(const Row& sorted, double share) {
        if (sorted.latencies.empty()) return "-";
        const auto last = static_cast<double>(sorted.latencies.size() - 1);
        std::ostringstream text;
        text.precision(2);
        text << std::fixed << sorted.latencies[static_cast<size_t>(last * share)] * 1e-3;
        return text.str();
    }

    std::string Ratio(const Row& row, const char* name) const {
        const auto base = m_rows.find(name);
        if (base == m_rows.end()) return "-";
        std::vector<double> ratios;
        for (size_t round = 0; round < row.runs.size(); ++round)
            ratios.push_back(row.runs[round].cpu / base->second.runs[round].cpu);
        std::ostringstream text;
        text.precision(3);
        text << std::fixed << Median(ratios);
        return text.str();
    }

    const Workload& m_workload;
    const Options& m_options;
    SharedMemory m_results;
    SharedMemory m_latencies;
    std::vector<WriterKind> m_kinds;
    std::map<std::string, Row> m_rows;
};

std::string ProcessorName() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "unknown processor";
}

void PrintMachine(const Options& options) {
    utsname system = {};
    uname(&system);
    char date[32] = {};
    const time_t now = std::time(nullptr);
    tm local = {};
    std::strftime(date, sizeof date, "%Y-%m-%d", localtime_r(&now, &local));
    std::printf(
        "%s, %ld processors, %s %s, %s; output in %s; medians of %u rounds, calls timed "
        "in %u more\n\n",
        ProcessorName().c_str(), sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release,
        date, options.directory.c_str(), options.rounds, options.timedRounds);
}

void Compare(const Options& options) {
    PrintMachine(options);
    for (const Workload::Shape& shape : WorkloadShapes(options.quick)) {
        const auto& wanted = options.workloads;
        if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), shape.name) == wanted.end())
            continue;
        const Workload workload(shape);
        Comparison comparison(workload, options);
        comparison.Run();
        comparison.Print();
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Compares what it costs to record frames.");
    app.add_option("directory", options.directory, "where the recordings are written")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    app.add_option("--rounds", options.rounds, "rounds without timing of calls")
        ->capture_default_str();
    app.add_option("--timed-rounds", options.timedRounds, "rounds with timing of calls")
        ->capture_default_str();
    app.add_option("--workload", options.workloads, "only these: 4k, 1080p, small, slices");
    app.add_option("--writer", options.writers, "only these, by their names in the table");
    app.add_flag("--quick", options.quick, "short recordings, one round: a check that it works");
    CLI11_PARSE(app, argc, argv);
    if (options.quick) options.rounds = options.timedRounds = 1;
    try {
        Compare(options);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
    return 0;
}
