// MBFile blobs: decoding and encoding one record, and what 500,000 decoded records cost in time and
// resident memory (the size of a large device's Manifest.db).
//
// The blobs are laid out as devices write them (path by UID, digest as plain data, key as an
// NSMutableData object, attributes as data holding a property list, a "Flags" key the record does not
// keep), in the proportions of a real iOS 14 manifest: 70% without key or digest (directories and
// empty files), 15% with a key, 13% with key and digest, 2% with attributes. For comparison the same
// blobs are decoded from their XML form, which goes through CFPropertyListCreateWithData, and the
// binary form is parsed by CFPropertyListCreateWithData alone.
//
// QUIVER_BENCH_RECORDS sets the number of records of the memory run (default 500000).
#include <benchmark/benchmark.h>

#include <CoreFoundation/CoreFoundation.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <malloc.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/MB/File.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"
#include "tests/Quiver/Support/PlistValues.hpp"

using Quiver::Support::cf_value;
using Bytes = std::vector<uint8_t>;
using plist_values::Format;
using plist_values::Serialize;
using plist_values::UID;

namespace {

CF::Dictionary ClassDescription(std::initializer_list<const char*> classes) {
    CF::Dictionary d = CF::Dictionary::CreateMutable();
    d.Set("$classname", CF::String(*classes.begin()));
    CF::Array names = CF::Array::CreateMutable();
    for (const char* c : classes) names.Append(CF::String(c));
    d.Set("$classes", names);
    return d;
}

Bytes Pattern(size_t n, uint32_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((seed * 2654435761u) >> (i % 24));
    return b;
}

// The archive of record i, as a device lays it out.
CF::Dictionary DeviceArchive(uint32_t i) {
    const uint32_t kind = i % 100;
    const bool hasKey = kind >= 70, hasDigest = kind >= 85, hasAttributes = kind >= 98;
    CF::Array objects = CF::Array::CreateMutable();
    objects.Append(CF::String("$null"));
    CF::Dictionary root = CF::Dictionary::CreateMutable();
    objects.Append(root);
    auto add = [&](CFTypeRef v) {
        objects.Append(v);
        return static_cast<uint32_t>(objects.size() - 1);
    };
    root.Set("LastModified", CF::Number(int64_t{1610674653} + i));
    root.Set("Flags", CF::Number(int64_t{0}));
    root.Set("GroupID", CF::Number(int64_t{501}));
    root.Set("LastStatusChange", CF::Number(int64_t{1610674660} + i));
    root.Set("Birth", CF::Number(int64_t{1610674600}));
    root.Set("Size", CF::Number(int64_t{hasKey ? 1620 + i : 0}));
    root.Set("Mode", CF::Number(int64_t{hasKey ? 0100644 : 040755}));
    root.Set("UserID", CF::Number(int64_t{501}));
    root.Set("InodeNumber", CF::Number(int64_t{100000} + i));
    root.Set("ProtectionClass", CF::Number(int64_t{hasKey ? 3 : 0}));
    const std::string path = "Library/Application Support/com.example.app" + std::to_string(i % 97) + "/Cache/item-" +
                             std::to_string(i);
    root.Set("RelativePath", UID(add(CF::String(path).get())));
    if (hasDigest) root.Set("Digest", UID(add(CF::Data(Pattern(20, i)).get())));
    if (hasKey) {
        CF::Dictionary key = CF::Dictionary::CreateMutable();
        Bytes wrapped = Pattern(44, i + 7);
        wrapped[0] = 3, wrapped[1] = wrapped[2] = wrapped[3] = 0;
        key.Set("NS.data", CF::Data(wrapped));
        const uint32_t keyId = add(key.get());
        key.Set("$class", UID(add(ClassDescription({"NSMutableData", "NSData", "NSObject"}).get())));
        root.Set("EncryptionKey", UID(keyId));
    }
    if (hasAttributes) {
        CF::Dictionary xattrs = CF::Dictionary::CreateMutable();
        xattrs.Set("com.apple.TextEncoding", CF::Data(Bytes{'u', 't', 'f', '-', '8'}));
        xattrs.Set("com.apple.assetsd.UUID", CF::Data(Pattern(36, i)));
        root.Set("ExtendedAttributes", UID(add(CF::Data(Serialize(xattrs.get())).get())));
    }
    root.Set("$class", UID(add(ClassDescription({"MBFile", "NSObject"}).get())));
    CF::Dictionary top = CF::Dictionary::CreateMutable();
    top.Set("root", UID(1));
    CF::Dictionary archive = CF::Dictionary::CreateMutable();
    archive.Set("$version", CF::Number(int64_t{100000}));
    archive.Set("$archiver", CF::String("NSKeyedArchiver"));
    archive.Set("$top", top);
    archive.Set("$objects", objects);
    return archive;
}

constexpr uint32_t kDistinctBlobs = 1000;

const std::vector<Bytes>& BinaryBlobs() {
    static const std::vector<Bytes> blobs = [] {
        std::vector<Bytes> v;
        for (uint32_t i = 0; i < kDistinctBlobs; ++i)
            v.push_back(Serialize(DeviceArchive(i).get()));
        return v;
    }();
    return blobs;
}

const std::vector<Bytes>& XMLBlobs() {
    static const std::vector<Bytes> blobs = [] {
        std::vector<Bytes> v;
        for (uint32_t i = 0; i < kDistinctBlobs; ++i)
            v.push_back(Serialize(DeviceArchive(i).get(), Format::XML));
        return v;
    }();
    return blobs;
}

void DecodeBinary(benchmark::State& state) {
    const auto& blobs = BinaryBlobs();
    size_t i = 0, bytes = 0;
    for (auto _ : state) {
        const Bytes& blob = blobs[i++ % blobs.size()];
        auto f = MB::File::Decode(blob);
        if (!f) state.SkipWithError("a blob did not decode");
        benchmark::DoNotOptimize(f);
        bytes += blob.size();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(DecodeBinary);

// What a manifest's load does with each row: the members read as views, no object made.
void DecodeBinaryAsViews(benchmark::State& state) {
    const auto& blobs = BinaryBlobs();
    size_t i = 0, bytes = 0;
    MB::FileView view;
    for (auto _ : state) {
        const Bytes& blob = blobs[i++ % blobs.size()];
        if (!MB::File::DecodeView(blob, view)) state.SkipWithError("a blob did not decode");
        benchmark::DoNotOptimize(view);
        bytes += blob.size();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(DecodeBinaryAsViews);

void DecodeXMLThroughCoreFoundation(benchmark::State& state) {
    const auto& blobs = XMLBlobs();
    size_t i = 0;
    for (auto _ : state) {
        auto f = MB::File::Decode(blobs[i++ % blobs.size()]);
        if (!f) state.SkipWithError("a blob did not decode");
        benchmark::DoNotOptimize(f);
    }
}
BENCHMARK(DecodeXMLThroughCoreFoundation);

// Only the parse that the in-place reader saves: the binary blob into CoreFoundation values.
void ParseBinaryWithCoreFoundation(benchmark::State& state) {
    const auto& blobs = BinaryBlobs();
    size_t i = 0;
    for (auto _ : state) {
        const Bytes& blob = blobs[i++ % blobs.size()];
        CF::Data data = CF::Data::NoCopy(blob);
        cf_value plist = cf_value::Adopt(CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), 0, nullptr, nullptr));
        benchmark::DoNotOptimize(plist.get());
    }
}
BENCHMARK(ParseBinaryWithCoreFoundation);

void Encode(benchmark::State& state) {
    std::vector<MB::File> files;
    for (const Bytes& blob : BinaryBlobs()) files.push_back(*MB::File::Decode(blob));
    size_t i = 0;
    for (auto _ : state) {
        CF::Data blob = files[i++ % files.size()].Encode();
        benchmark::DoNotOptimize(blob.get());
    }
}
BENCHMARK(Encode);

size_t ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Bytes handed out by malloc and not yet freed; unlike the resident size it does not depend on what
// earlier runs left in the allocator's free lists.
size_t HeapBytes() { return mallinfo2().uordblks; }

double CPUSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

size_t RecordCount() {
    if (const char* text = std::getenv("QUIVER_BENCH_RECORDS")) {
        char* end = nullptr;
        const unsigned long long n = std::strtoull(text, &end, 10);
        if (end != text && *end == '\0' && n > 0) return n;
    }
    return 500000;
}

// Every record a blob of its own (as rows of a database are), decoded and kept. Reports the CPU time of
// decoding all records and the memory they hold per record (the vector of records included): heap
// bytes in use, and the growth of the resident size (meaningful in the first repetition only).
void DecodeAndKeepManyRecords(benchmark::State& state) {
    const size_t n = RecordCount();
    std::vector<Bytes> blobs;
    blobs.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        // Copies of the distinct blobs; each decoded record still owns all of its objects.
        blobs.push_back(BinaryBlobs()[i % kDistinctBlobs]);
    }
    for (auto _ : state) {
        const size_t residentBefore = ResidentBytes(), heapBefore = HeapBytes();
        const double cpuBefore = CPUSeconds();
        std::vector<MB::File> records;
        records.reserve(n);
        for (const Bytes& blob : blobs) records.push_back(*MB::File::Decode(blob));
        const double cpu = CPUSeconds() - cpuBefore;
        const size_t residentAfter = ResidentBytes(), heapAfter = HeapBytes();
        state.counters["records"] = static_cast<double>(n);
        state.counters["decode_cpu_s"] = cpu;
        state.counters["heap_bytes_per_record"] = static_cast<double>(heapAfter - heapBefore) / static_cast<double>(n);
        state.counters["resident_bytes_per_record"] =
            static_cast<double>(residentAfter - residentBefore) / static_cast<double>(n);
        state.counters["sizeof_MBFile"] = sizeof(MB::File);
    }
}
BENCHMARK(DecodeAndKeepManyRecords)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
