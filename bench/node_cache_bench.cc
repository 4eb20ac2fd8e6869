// Node cache load and save on a synthetic cache shaped like a large backup
// target, against the plain JsonCpp route as a reference in the same run.
//
//   BM_NodeCacheLoad/N        FileMetaStore::load of N records
//   BM_NodeCacheLoadNaive/N   getdelim + JsonCpp CharReader per line + one
//                             insert per record into std::map/std::set/std::string
//   BM_NodeCacheSave/N        FileMetaStore::save of N records
//   BM_NodeCacheSaveNaive/N   one Json::Value and JsonCpp StreamWriter per record
//   BM_NodeCacheFind/N        random lookups by (parent, name) and by id in a
//                             loaded store, and BM_NodeCacheFindNaive/N in the
//                             std::map reference
//   BM_NodeCacheInsert/N      N new records (a listing) into a loaded 1M store,
//                             and BM_NodeCacheInsertNaive/N
//
// Loads run in a fresh child process each (cold memory, as in an agent that
// starts up). bytes_per_record is the growth of resident memory while the
// store loads (free heap pages trimmed before and after), divided by N.
#include <benchmark/benchmark.h>
#include <json/json.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "file_meta_store.h"

namespace {

using TAVO::Backup::GoogleDrive::FileMeta;
using TAVO::Backup::GoogleDriveTA::FileMetaRecord;
using TAVO::Backup::GoogleDriveTA::FileMetaStore;
namespace fs = std::filesystem;

size_t residentBytes() {
    long pages = 0, resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (!statm) return 0;
    if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    fclose(statm);
    return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t residentAfterTrim() {
    malloc_trim(0);
    return residentBytes();
}

// Runs `work` in a child process and returns what it wrote into `result`. A
// cache is loaded once, by a fresh agent process: measured in a child, the
// load meets cold memory as it would there, and neither the data generation
// nor an earlier benchmark leaves it a warm heap.
template <class Result, class Work>
bool inChildProcess(Result& result, Work work) {
    malloc_trim(0);
    int fds[2];
    if (pipe(fds) != 0) return false;
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        close(fds[0]);
        Result out = work();
        ssize_t written = write(fds[1], &out, sizeof out);
        _exit(written == static_cast<ssize_t>(sizeof out) ? 0 : 1);
    }
    close(fds[1]);
    ssize_t got = read(fds[0], &result, sizeof result);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return got == static_cast<ssize_t>(sizeof result) && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// ---- Synthetic data -------------------------------------------------------

class DriveIds {
  public:
    explicit DriveIds(uint64_t seed) : _random(seed) {}
    // 33 characters of Drive's id alphabet, like the ids Drive hands out.
    std::string next() {
        static char const kAlphabet[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
        std::string id(33, '1');
        for (size_t i = 1; i < id.size(); ++i) id[i] = kAlphabet[_random() % 64];
        return id;
    }

  private:
    std::mt19937_64 _random;
};

// A backup target: container and target folders, a pool of folders with
// about 2000 files each, some files with two parents, a few names shared in
// one folder, and a few names that need escaping.
void fillStore(FileMetaStore& store, size_t records) {
    DriveIds ids(42);
    std::string const root = ids.next();
    std::string const container = ids.next();
    std::string const target = ids.next();
    store.insert(container, FileMetaRecord(root, "backup", true));
    store.insert(target, FileMetaRecord(container, "nas1_1.hbk", true));
    size_t const folders = records / 2000 + 1;
    std::vector<std::string> folderIds;
    for (size_t f = 0; f < folders; ++f) {
        folderIds.push_back(ids.next());
        store.insert(folderIds.back(), FileMetaRecord(target, "Pool" + std::to_string(f), true));
    }
    char name[64];
    for (size_t i = 0; store.size() < records; ++i) {
        size_t folder = i % folders;
        size_t number = i / folders;
        if (i % 4999 == 4998) number -= 1;  // a second object of one name
        if (i % 4 == 0) {
            snprintf(name, sizeof name, "%zu.bucket", number);
        } else if (i % 10007 == 0) {
            snprintf(name, sizeof name, "r\xc3\xa9sum\xc3\xa9 \"%zu\".txt", number);
        } else {
            snprintf(name, sizeof name, "%zu.index.%zu", number, i % 7);
        }
        std::set<std::string> parents{folderIds[folder]};
        if (i % 997 == 0) parents.insert(folderIds[(folder + 1) % folders]);
        store.insert(ids.next(), FileMetaRecord(parents, name, false));
    }
}

struct Dataset {
    std::string dir;
    std::string file;  // the cache file of the synthetic store
    size_t bytes = 0;
};

// Generated once per size and removed at exit.
Dataset const& dataset(size_t records) {
    static struct Datasets {
        ~Datasets() {
            for (auto const& entry : sets) fs::remove_all(entry.second.dir);
        }
        std::map<size_t, Dataset> sets;
    } all;
    Dataset& data = all.sets[records];
    if (!data.file.empty()) return data;
    std::string pattern = (fs::temp_directory_path() / "node_cache_bench.XXXXXX").string();
    if (!mkdtemp(&pattern[0])) abort();
    data.dir = pattern;
    data.file = data.dir + "/ta_cache.node";
    bool saved = false;
    std::string const file = data.file;
    bool ran = inChildProcess(saved, [records, &file] {
        FileMetaStore store;
        fillStore(store, records);
        return store.save(file);
    });
    if (!ran || !saved) abort();
    data.bytes = fs::file_size(data.file);
    return data;
}

// ---- The plain implementation: the reference -----------------------------

class NaiveStore {
  public:
    void insert(std::string const& id, FileMetaRecord const& record) {
        auto it = _records.find(id);
        if (it != _records.end()) {
            if (it->second.compare(record) == 0) return;
            remove(id);
        }
        _records[id] = record;
        if (record.parents.empty()) _index[{std::string(), record.name}] = id;
        for (std::string const& parent : record.parents) _index[{parent, record.name}] = id;
    }
    void remove(std::string const& id) {
        auto it = _records.find(id);
        if (it == _records.end()) return;
        for (std::string const& parent : it->second.parents)
            _index.erase({parent, it->second.name});
        _records.erase(it);
    }

    bool load(std::string const& path) {
        FILE* file = fopen(path.c_str(), "rb");
        if (!file) return false;
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        char* buffer = nullptr;
        size_t capacity = 0;
        ssize_t length;
        while ((length = getdelim(&buffer, &capacity, '\n', file)) != -1) {
            std::string line(buffer, static_cast<size_t>(length));
            Json::Value value;
            std::string errors;
            if (!reader->parse(line.data(), line.data() + line.size(), &value, &errors)) continue;
            std::set<std::string> parents;
            for (Json::Value const& parent : value["p"]) parents.insert(parent.asString());
            insert(value["i"].asString(),
                   FileMetaRecord(parents, value["n"].asString(), value["d"].asBool()));
        }
        free(buffer);
        fclose(file);
        return true;
    }

    bool save(std::string const& path) const {
        std::string temp = path + ".tmp";
        {
            std::ofstream out(temp, std::ios::binary);
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";
            std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
            for (auto const& [id, record] : _records) {
                Json::Value value;
                value["i"] = id;
                value["n"] = record.name;
                value["p"] = Json::Value(Json::arrayValue);
                value["d"] = record.isDir;
                for (std::string const& parent : record.parents) value["p"].append(parent);
                writer->write(value, &out);
                out << '\n';
            }
        }
        return rename(temp.c_str(), path.c_str()) == 0;
    }

    bool find(std::string const& id, FileMeta& meta) const {
        auto it = _records.find(id);
        if (it == _records.end()) return false;
        FileMeta found;
        found.id = id;
        found.name = it->second.name;
        found.parents = it->second.parents;
        found.isDir = it->second.isDir;
        meta = std::move(found);
        return true;
    }
    bool find(std::string const& parent, std::string const& name, FileMeta& meta) const {
        auto it = _index.find({parent, name});
        return it != _index.end() && find(it->second, meta);
    }

    size_t size() const { return _records.size(); }

  private:
    std::map<std::string, FileMetaRecord> _records;
    std::map<std::pair<std::string, std::string>, std::string> _index;
};

// ---- Benchmarks ----------------------------------------------------------

struct LoadResult {
    double seconds;
    double bytes_per_record;
    size_t records;
};

template <class Store>
void runLoad(benchmark::State& state) {
    size_t const records = static_cast<size_t>(state.range(0));
    Dataset const& data = dataset(records);
    double bytesPerRecord = 0;
    for (auto _ : state) {
        LoadResult result{};
        bool ran = inChildProcess(result, [&data, records] {
            LoadResult out{};
            Store store;
            size_t before = residentAfterTrim();
            auto start = std::chrono::steady_clock::now();
            bool loaded = store.load(data.file);
            out.seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            out.records = loaded ? store.size() : 0;
            size_t after = residentAfterTrim();
            out.bytes_per_record = (static_cast<double>(after) - static_cast<double>(before)) /
                                   static_cast<double>(records);
            return out;
        });
        if (!ran || result.records != records) {
            state.SkipWithError("load failed or lost records");
            break;
        }
        state.SetIterationTime(result.seconds);
        bytesPerRecord = result.bytes_per_record;
    }
    state.counters["bytes_per_record"] = bytesPerRecord;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.bytes));
}

void BM_NodeCacheLoad(benchmark::State& state) { runLoad<FileMetaStore>(state); }
void BM_NodeCacheLoadNaive(benchmark::State& state) { runLoad<NaiveStore>(state); }

void BM_NodeCacheSave(benchmark::State& state) {
    size_t const records = static_cast<size_t>(state.range(0));
    Dataset const& data = dataset(records);
    FileMetaStore store;
    store.load(data.file);
    std::string const out = data.dir + "/saved.node";
    bool flip = false;
    for (auto _ : state) {
        // A clean store writes nothing: change one record each time.
        state.PauseTiming();
        FileMeta change;
        change.id = "~bench";
        change.name = flip ? "a" : "b";
        flip = !flip;
        store.insert(change);
        state.ResumeTiming();
        if (!store.save(out)) state.SkipWithError("save failed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.bytes));
}

void BM_NodeCacheSaveNaive(benchmark::State& state) {
    size_t const records = static_cast<size_t>(state.range(0));
    Dataset const& data = dataset(records);
    NaiveStore store;
    store.load(data.file);
    std::string const out = data.dir + "/saved-naive.node";
    for (auto _ : state) {
        if (!store.save(out)) state.SkipWithError("save failed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.bytes));
}

// Every 10th record of the file, shuffled: the lookups of a warm agent.
std::vector<FileMeta> const& sampleQueries(Dataset const& data) {
    static std::vector<FileMeta> queries;
    if (!queries.empty()) return queries;
    std::ifstream in(data.file);
    std::string line;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    for (size_t n = 0; std::getline(in, line); ++n) {
        Json::Value value;
        if (n % 10 != 0 || !reader->parse(line.data(), line.data() + line.size(), &value, nullptr))
            continue;
        FileMeta meta;
        meta.id = value["i"].asString();
        meta.name = value["n"].asString();
        for (Json::Value const& parent : value["p"]) meta.parents.insert(parent.asString());
        if (meta.parents.empty()) meta.parents.insert(std::string());
        queries.push_back(meta);
    }
    std::shuffle(queries.begin(), queries.end(), std::mt19937(5));
    return queries;
}

template <class Store>
void runFind(benchmark::State& state) {
    Dataset const& data = dataset(static_cast<size_t>(state.range(0)));
    std::vector<FileMeta> const& queries = sampleQueries(data);
    Store store;
    store.load(data.file);
    size_t hits = 0;
    FileMeta meta;
    for (auto _ : state) {
        for (FileMeta const& query : queries) {
            hits += store.find(*query.parents.begin(), query.name, meta);
            hits += store.find(query.id, meta);
        }
    }
    // Names shared in a folder miss by placement; everything else hits.
    if (hits < state.iterations() * queries.size()) state.SkipWithError("lookups missed");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 2 * queries.size()));
}

void BM_NodeCacheFind(benchmark::State& state) { runFind<FileMetaStore>(state); }
void BM_NodeCacheFindNaive(benchmark::State& state) { runFind<NaiveStore>(state); }

// A listing's worth of new files in 100 of the existing folders; each
// iteration inserts them and (untimed) removes them again.
template <class Store>
void runInsert(benchmark::State& state) {
    Dataset const& data = dataset(1000000);
    std::vector<FileMeta> const& queries = sampleQueries(data);
    size_t const records = static_cast<size_t>(state.range(0));
    std::vector<std::pair<std::string, FileMetaRecord>> listing;
    DriveIds ids(7);
    char name[32];
    for (size_t i = 0; i < records; ++i) {
        snprintf(name, sizeof name, "new.%zu", i);
        std::string const& folder = *queries[i % 100].parents.begin();
        listing.emplace_back(ids.next(), FileMetaRecord(folder, name, false));
    }
    Store store;
    store.load(data.file);
    for (auto _ : state) {
        for (auto const& [id, record] : listing) store.insert(id, record);
        state.PauseTiming();
        if (store.size() != 1000000 + records) state.SkipWithError("inserts lost");
        for (auto const& entry : listing) store.remove(entry.first);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
}

void BM_NodeCacheInsert(benchmark::State& state) { runInsert<FileMetaStore>(state); }
void BM_NodeCacheInsertNaive(benchmark::State& state) { runInsert<NaiveStore>(state); }

// Times are the child's load alone (manual time); one iteration of a 1M
// load already takes longer than the minimum time, so runs stay short.
BENCHMARK(BM_NodeCacheLoad)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();
BENCHMARK(BM_NodeCacheLoadNaive)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_NodeCacheSave)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NodeCacheSaveNaive)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NodeCacheFind)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NodeCacheFindNaive)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NodeCacheInsert)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NodeCacheInsertNaive)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
