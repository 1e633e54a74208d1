// What the codec adds to moving a chunk of data: encoding 2 MiB against one memcpy of them, in
// the same run. "fresh" pays for new memory every time, as a message that travels by its own
// pointer does; "reused" writes behind room for a packet in a buffer that is used again.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>

#include "figure.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace {

using analysis::nedra::proto::FileChunkReq;
using orla::bench::Repeated;
constexpr size_t kChunk = 2 * 1024 * 1024;
constexpr size_t kPacketRoom = 12;

std::shared_ptr<FileChunkReq> MakeChunk() {
    auto chunk = std::make_shared<FileChunkReq>();
    chunk->mutable_hdr()->set_job_ctx(R"({"dev_id":"0","job_id":"job"})");
    chunk->set_filename("data/aicore.data.0");
    chunk->set_offset(-1);
    chunk->set_chunk(std::string(kChunk, 'x'));
    chunk->set_chunksizeinbytes(kChunk);
    chunk->set_datamodule(3);
    return chunk;
}

void CountBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kChunk);
}

void BM_MemcpyFresh(benchmark::State& state) {
    const std::string source(kChunk, 'x');
    for (auto _ : state) {
        const std::unique_ptr<char[]> target(new char[kChunk]);
        std::memcpy(target.get(), source.data(), kChunk);
        benchmark::DoNotOptimize(target.get());
    }
    CountBytes(state);
}

void BM_EncodeFresh(benchmark::State& state) {
    const auto chunk = MakeChunk();
    for (auto _ : state) {
        const auto envelope = analysis::nedra::message::EncodeMessageShared(chunk);
        benchmark::DoNotOptimize(envelope->data());
    }
    CountBytes(state);
}

void BM_MemcpyReused(benchmark::State& state) {
    const std::string source(kChunk, 'x');
    std::string target(kChunk, '\0');
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), kChunk);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    CountBytes(state);
}

void BM_EncodeReused(benchmark::State& state) {
    const auto chunk = MakeChunk();
    std::string buffer;
    for (auto _ : state) {
        buffer.resize(kPacketRoom);
        if (!analysis::nedra::message::AppendEnvelope(*chunk, &buffer)) {
            state.SkipWithError("not encoded");
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    CountBytes(state);
}

BENCHMARK(BM_MemcpyFresh)->Apply(Repeated);
BENCHMARK(BM_EncodeFresh)->Apply(Repeated);
BENCHMARK(BM_MemcpyReused)->Apply(Repeated);
BENCHMARK(BM_EncodeReused)->Apply(Repeated);

}  // namespace

int main() {
    benchmark::SetDefaultTimeUnit(benchmark::kMicrosecond);
    const orla::bench::Medians us;
    orla::bench::Figure("encode a chunk of 2 MiB, fresh block", "us", us["BM_EncodeFresh"],
                        us["BM_MemcpyFresh"], "new and memcpy");
    orla::bench::Figure("encode a chunk of 2 MiB, same buffer", "us", us["BM_EncodeReused"],
                        us["BM_MemcpyReused"], "memcpy");
    return 0;
}
