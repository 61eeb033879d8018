// Streams and IFF files against what a user would write by hand: memcpy and byte-swapping
// copy loops for memory streams, stdio for file streams and chunk files.
#include <vxtools3/iff.h>
#include <vxtools3/streams.h>

#include "bench/ratio_reporter.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int32_t kTotal = 64 << 20;  // 64 MiB
constexpr int32_t kPiece = 4096;

const std::vector<uint8_t> &Source()
{
    static std::vector<uint8_t> data = [] {
        std::vector<uint8_t> d(kTotal);
        for (size_t i = 0; i < d.size(); ++i)
            d[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
        return d;
    }();
    return data;
}

// The benchmark's files live in a directory of their own, removed at exit.
struct ScratchDir {
    std::string path;
    ScratchDir()
    {
        char pattern[] = "/tmp/vx_io_bench_XXXXXX";
        const char *made = mkdtemp(pattern);
        path = made ? made : "";
    }
    ~ScratchDir()
    {
        for (const char *name : {"values.bin", "big.bin", "ours.iff", "stdio.iff", "parse.iff"})
            std::remove((path + "/" + name).c_str());
        rmdir(path.c_str());
    }
};

const std::string &TempDir()
{
    static ScratchDir dir;
    return dir.path;
}

// ---- Memory streams: 64 MiB in 4 KiB pieces ---------------------------------------------

template <int Size>
void SwapCopy(uint8_t *dst, const uint8_t *src, size_t bytes)
{
    for (size_t i = 0; i < bytes; i += Size) {
        if constexpr (Size == 2) {
            uint16_t v;
            std::memcpy(&v, src + i, 2);
            v = __builtin_bswap16(v);
            std::memcpy(dst + i, &v, 2);
        } else {
            uint32_t v;
            std::memcpy(&v, src + i, 4);
            v = __builtin_bswap32(v);
            std::memcpy(dst + i, &v, 4);
        }
    }
}

// Writes through a stream whose block already holds 64 MiB, so that the copy is measured.
template <int Size>
void MemWrite(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    VxWriteStrm *s = MemStrmWriteCreate();
    s->writeBytes(s, src, kTotal);
    auto write = Size == 1 ? s->writeBytes : Size == 2 ? s->writeShorts : s->writeLongs;
    for (auto _ : state) {
        s->seek(s, 0);
        for (int32_t off = 0; off < kTotal; off += kPiece)
            write(s, src + off, kPiece / Size);
        benchmark::DoNotOptimize(s->impl);
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
    StrmWriteDestroy(s);
}

template <int Size>
void PeerCopy(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    std::vector<uint8_t> dst(kTotal);
    for (auto _ : state) {
        for (int32_t off = 0; off < kTotal; off += kPiece) {
            if constexpr (Size == 1)
                std::memcpy(dst.data() + off, src + off, kPiece);
            else
                SwapCopy<Size>(dst.data() + off, src + off, kPiece);
        }
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

// A fresh stream each time: the block grows from nothing, as when saving a scene to memory.
void MemWriteFresh(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    for (auto _ : state) {
        VxWriteStrm *s = MemStrmWriteCreate();
        for (int32_t off = 0; off < kTotal; off += kPiece)
            s->writeBytes(s, src + off, kPiece);
        benchmark::DoNotOptimize(s->impl);
        StrmWriteDestroy(s);
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

void VectorAppend(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    for (auto _ : state) {
        std::vector<uint8_t> v;
        for (int32_t off = 0; off < kTotal; off += kPiece)
            v.insert(v.end(), src + off, src + off + kPiece);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

template <int Size>
void MemRead(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    std::vector<uint8_t> dst(kTotal);
    for (auto _ : state) {
        VxReadStrm *s = MemStrmReadCreate(src, kTotal, 0);
        auto read = Size == 1 ? s->readBytes : Size == 2 ? s->readShorts : s->readLongs;
        for (int32_t off = 0; off < kTotal; off += kPiece)
            read(s, dst.data() + off, kPiece / Size);
        benchmark::DoNotOptimize(dst.data());
        StrmReadDestroy(s);
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

// ---- Single values ----------------------------------------------------------------------

constexpr int32_t kValues = 1 << 20;

// Reads kValues swapped longs one at a time from each stream `open` makes.
template <class Open>
void ReadOneLongAtATime(benchmark::State &state, Open open)
{
    for (auto _ : state) {
        VxReadStrm *s = open();
        uint32_t sum = 0, v;
        for (int32_t i = 0; i < kValues; ++i) {
            s->readLongs(s, &v, 1);
            sum += v;
        }
        benchmark::DoNotOptimize(sum);
        StrmReadDestroy(s);
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

void MemReadOneLong(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    ReadOneLongAtATime(state, [src] { return MemStrmReadCreate(src, kValues * 4, 0); });
}

void LoopReadOneLong(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    for (auto _ : state) {
        uint32_t sum = 0, v;
        for (int32_t i = 0; i < kValues; ++i) {
            std::memcpy(&v, src + 4 * i, 4);
            sum += __builtin_bswap32(v);
            benchmark::DoNotOptimize(sum);  // one value at a time, as a parser would
        }
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

const std::string &ValuesFile()
{
    static std::string path = [] {
        std::string p = TempDir() + "/values.bin";
        FILE *f = std::fopen(p.c_str(), "wb");
        std::fwrite(Source().data(), 1, kValues * 4, f);
        std::fclose(f);
        return p;
    }();
    return path;
}

void FileReadOneLong(benchmark::State &state)
{
    const std::string &path = ValuesFile();
    ReadOneLongAtATime(state, [&path] { return FileStrmReadOpen(path.c_str(), nullptr); });
}

void StdioReadOneLong(benchmark::State &state)
{
    const std::string &path = ValuesFile();
    for (auto _ : state) {
        FILE *f = std::fopen(path.c_str(), "rb");
        uint32_t sum = 0, v;
        for (int32_t i = 0; i < kValues; ++i) {
            if (std::fread(&v, 4, 1, f) == 1)
                sum += __builtin_bswap32(v);
        }
        benchmark::DoNotOptimize(sum);
        std::fclose(f);
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

// ---- Bulk file reads in 64 KiB blocks ----------------------------------------------------

const std::string &BigFile()
{
    static std::string path = [] {
        std::string p = TempDir() + "/big.bin";
        FILE *f = std::fopen(p.c_str(), "wb");
        std::fwrite(Source().data(), 1, kTotal, f);
        std::fclose(f);
        return p;
    }();
    return path;
}

constexpr int32_t kBlock = 64 << 10;

void FileReadBlocks(benchmark::State &state)
{
    std::vector<uint8_t> buf(kBlock);
    for (auto _ : state) {
        VxReadStrm *s = FileStrmReadOpen(BigFile().c_str(), nullptr);
        while (s->readBytes(s, buf.data(), kBlock) > 0) {
        }
        benchmark::DoNotOptimize(buf.data());
        StrmReadDestroy(s);
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

void FreadBlocks(benchmark::State &state)
{
    std::vector<uint8_t> buf(kBlock);
    for (auto _ : state) {
        FILE *f = std::fopen(BigFile().c_str(), "rb");
        while (std::fread(buf.data(), 1, kBlock, f) > 0) {
        }
        benchmark::DoNotOptimize(buf.data());
        std::fclose(f);
    }
    state.SetBytesProcessed(state.iterations() * kTotal);
}

// ---- A 100 MB IFF file of 1 KiB chunks ---------------------------------------------------

constexpr int32_t kChunkData = 1024;
constexpr int32_t kChunks = 100 * 1000 * 1000 / (kChunkData + 8);
constexpr int64_t kIffBytes = 12 + int64_t{kChunks} * (kChunkData + 8);

std::string IffPath(const char *name) { return TempDir() + "/" + name; }

void IffWrite(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    for (auto _ : state) {
        VxWriteStrm *s = FileStrmWriteOpen(IffPath("ours.iff").c_str());
        VxIFFWriter *w = IFFWCreate(s);
        IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), VX_ID('B', 'E', 'N', 'C'));
        for (int32_t i = 0; i < kChunks; ++i) {
            IFFWChunkOpen(w, VX_ID('D', 'A', 'T', 'A'), 0);
            IFFWriteBytes(w, src + (i % 4096) * 1024, kChunkData);
            IFFWChunkClose(w);
        }
        IFFWChunkClose(w);
        IFFWDestroy(w);
        if (StrmWriteDestroy(s) != 0)
            state.SkipWithError("write failed");
    }
    state.SetBytesProcessed(state.iterations() * kIffBytes);
}

void PutBE32(uint8_t *p, uint32_t v)
{
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

// The hand-written peer knows every length in advance except the FORM's, patched at the end.
void StdioIffWrite(benchmark::State &state)
{
    const uint8_t *src = Source().data();
    for (auto _ : state) {
        FILE *f = std::fopen(IffPath("stdio.iff").c_str(), "wb");
        uint8_t header[12];
        std::memcpy(header, "FORM\0\0\0\0BENC", 12);
        std::fwrite(header, 1, 12, f);
        for (int32_t i = 0; i < kChunks; ++i) {
            std::memcpy(header, "DATA", 4);
            PutBE32(header + 4, kChunkData);
            std::fwrite(header, 1, 8, f);
            std::fwrite(src + (i % 4096) * 1024, 1, kChunkData, f);
        }
        PutBE32(header, static_cast<uint32_t>(kIffBytes - 8));
        std::fseek(f, 4, SEEK_SET);
        std::fwrite(header, 1, 4, f);
        if (std::fclose(f) != 0)
            state.SkipWithError("write failed");
    }
    state.SetBytesProcessed(state.iterations() * kIffBytes);
}

const std::string &IffFile()
{
    static std::string path = [] {
        std::string p = IffPath("parse.iff");
        VxWriteStrm *s = FileStrmWriteOpen(p.c_str());
        VxIFFWriter *w = IFFWCreate(s);
        IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), VX_ID('B', 'E', 'N', 'C'));
        for (int32_t i = 0; i < kChunks; ++i) {
            IFFWChunkOpen(w, VX_ID('D', 'A', 'T', 'A'), 0);
            IFFWriteBytes(w, Source().data() + (i % 4096) * 1024, kChunkData);
            IFFWChunkClose(w);
        }
        IFFWChunkClose(w);
        IFFWDestroy(w);
        StrmWriteDestroy(s);
        return p;
    }();
    return path;
}

// Parses every chunk header; with `readData` also reads each payload.
void IffParse(benchmark::State &state, bool readData)
{
    std::vector<uint8_t> buf(kChunkData);
    static const uint32_t stop[] = {VX_ID('D', 'A', 'T', 'A'), 0};
    for (auto _ : state) {
        VxReadStrm *s = FileStrmReadOpen(IffFile().c_str(), nullptr);
        VxIFFReader *r = IFFRCreate(s);
        IFFRFormType(r, VX_ID('B', 'E', 'N', 'C'));
        int32_t chunks = 0;
        while (IFFRParse(r, readData ? stop : nullptr)) {
            IFFReadBytes(r, buf.data(), IFFRChunkLength(r));
            ++chunks;
        }
        if (!readData)
            chunks = kChunks;  // IFFRParse walked them all without stopping
        if (chunks != kChunks || r->error)
            state.SkipWithError("parse failed");
        IFFRDestroy(r);
        StrmReadDestroy(s);
    }
    state.SetItemsProcessed(state.iterations() * kChunks);
    state.SetBytesProcessed(state.iterations() * kIffBytes);
}

void StdioIffParse(benchmark::State &state, bool readData)
{
    std::vector<uint8_t> buf(kChunkData);
    for (auto _ : state) {
        FILE *f = std::fopen(IffFile().c_str(), "rb");
        uint8_t header[12];
        int32_t chunks = 0;
        if (std::fread(header, 1, 12, f) == 12) {
            while (std::fread(header, 1, 8, f) == 8) {
                uint32_t length;
                std::memcpy(&length, header + 4, 4);
                length = __builtin_bswap32(length);
                if (readData)
                    chunks += std::fread(buf.data(), 1, length, f) == length;
                else
                    chunks += std::fseek(f, length + (length & 1), SEEK_CUR) == 0;
            }
        }
        if (chunks != kChunks)
            state.SkipWithError("parse failed");
        std::fclose(f);
    }
    state.SetItemsProcessed(state.iterations() * kChunks);
    state.SetBytesProcessed(state.iterations() * kIffBytes);
}

#define PAIR(caseName, ours, oursName, peer, peerName, unit)                                 \
    BENCHMARK(ours)->Name(caseName ":" oursName)->Unit(unit)->UseRealTime();                 \
    BENCHMARK(peer)->Name(caseName ":" peerName)->Unit(unit)->UseRealTime();

PAIR("mem_write_64MiB_4KiB_bytes", MemWrite<1>, "MemStrm", PeerCopy<1>, "memcpy", benchmark::kMillisecond)
PAIR("mem_write_64MiB_4KiB_shorts", MemWrite<2>, "MemStrm", PeerCopy<2>, "swap_loop", benchmark::kMillisecond)
PAIR("mem_write_64MiB_4KiB_longs", MemWrite<4>, "MemStrm", PeerCopy<4>, "swap_loop", benchmark::kMillisecond)
PAIR("mem_write_64MiB_growing", MemWriteFresh, "MemStrm", VectorAppend, "std::vector", benchmark::kMillisecond)
PAIR("mem_read_64MiB_4KiB_bytes", MemRead<1>, "MemStrm", PeerCopy<1>, "memcpy", benchmark::kMillisecond)
PAIR("mem_read_64MiB_4KiB_shorts", MemRead<2>, "MemStrm", PeerCopy<2>, "swap_loop", benchmark::kMillisecond)
PAIR("mem_read_64MiB_4KiB_longs", MemRead<4>, "MemStrm", PeerCopy<4>, "swap_loop", benchmark::kMillisecond)
PAIR("read_one_long_1M_mem", MemReadOneLong, "MemStrm", LoopReadOneLong, "swap_loop", benchmark::kMillisecond)
PAIR("read_one_long_1M_file", FileReadOneLong, "FileStrm", StdioReadOneLong, "fread", benchmark::kMillisecond)
PAIR("file_read_64MiB_64KiB", FileReadBlocks, "FileStrm", FreadBlocks, "fread", benchmark::kMillisecond)
PAIR("iff_write_100MB_1KiB", IffWrite, "IFFW", StdioIffWrite, "stdio", benchmark::kMillisecond)

BENCHMARK_CAPTURE(IffParse, skip, false)->Name("iff_parse_100MB_skip:IFFR")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(StdioIffParse, skip, false)->Name("iff_parse_100MB_skip:stdio")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(IffParse, read, true)->Name("iff_parse_100MB_read:IFFR")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(StdioIffParse, read, true)->Name("iff_parse_100MB_read:stdio")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
