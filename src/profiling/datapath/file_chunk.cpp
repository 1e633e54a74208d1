#include "profiling/datapath/file_chunk.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <exception>
#include <stdexcept>
#include <utility>

#include "hdc/log_side.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::transport {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;
using proto::FileChunkReq;

namespace {

constexpr int64_t kNoOffset = -1;  // append
constexpr size_t kMaxLength = 5;   // bytes of the chunk's length in front of it
constexpr size_t kTail = 64;       // more than the fields after the chunk take
constexpr uint32_t kChunkTag = WireFormatLite::MakeTag(FileChunkReq::kChunkFieldNumber,
                                                       WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
static_assert(kChunkTag < 0x80, "one byte");

// The envelope with the fields in front of the chunk, and the chunk's tag; fields are written in
// the order of their numbers.
std::string EncodeHead(const FileChunkInfo& info, const std::string& jobCtx) {
    FileChunkReq head;
    head.mutable_hdr()->set_job_ctx(jobCtx);
    head.set_filename(info.fileName);
    head.set_offset(kNoOffset);
    std::string out;
    if (!message::AppendEnvelope(head, &out)) {
        throw std::runtime_error("fileChunk encode failed. fileName:" + info.fileName);
    }
    out.push_back(static_cast<char>(kChunkTag));
    return out;
}

}  // namespace

ChunkEncoder::ChunkEncoder(FileChunkInfo info, const std::string& jobCtx)
    : fileName_(info.fileName),
      isLastChunk_(info.isLastChunk),
      dataModule_(info.dataModule),
      head_(EncodeHead(info, jobCtx)),
      dataAt_(kFrontRoom + head_.size() + kMaxLength) {}

MessageBuffer ChunkEncoder::Encode(std::string_view data) const {
    if (data.size() > INT_MAX - dataAt_ - kTail) {
        PROF_LOGE("data size %zu is out of range", data.size());
        return nullptr;
    }
    MessageBuffer buffer = TakeMessageBuffer(dataAt_ - kFrontRoom + data.size() + kTail);
    if (buffer == nullptr) {
        return nullptr;
    }
    buffer->bytes.resize(dataAt_);
    buffer->bytes.append(data);
    return Finish(*buffer, data.size()) ? std::move(buffer) : nullptr;
}

MessageBuffer ChunkEncoder::TakeRoom(size_t size) const {
    return TakeFilledBuffer(dataAt_ - kFrontRoom + size + kTail);
}

char* ChunkEncoder::DataOf(MessageBlock& block) const {
    return block.bytes.data() + dataAt_;
}

bool ChunkEncoder::Finish(MessageBlock& block, size_t used) const {
    FileChunkReq tail;
    tail.set_chunksizeinbytes(static_cast<int32_t>(used));
    tail.set_islastchunk(isLastChunk_);
    tail.set_needack(false);
    tail.set_datamodule(static_cast<int32_t>(dataModule_));
    const size_t end = dataAt_ + used;
    const size_t size = tail.ByteSizeLong();
    if (size > kTail) {
        PROF_LOGE("fileChunk encode failed. fileName:%s", fileName_.c_str());
        return false;
    }
    block.bytes.resize(end + size);  // there is room for it
    tail.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(block.bytes.data()) + end);
    // A field without bytes is not written, nor are its tag and its length.
    const auto length = static_cast<uint32_t>(used);
    const size_t lengthBytes = used == 0 ? 0 : CodedOutputStream::VarintSize32(length);
    const size_t headBytes = head_.size() - (used == 0 ? 1 : 0);
    block.begin = dataAt_ - lengthBytes - headBytes;
    head_.copy(block.data(), headBytes);
    if (used != 0) {
        CodedOutputStream::WriteVarint32ToArray(
            length, reinterpret_cast<uint8_t*>(block.data() + headBytes));
    }
    return true;
}

MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                              const std::string& jobCtx) {
    try {
        return ChunkEncoder(info, jobCtx).Encode(data);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

}  // namespace analysis::nedra::transport
