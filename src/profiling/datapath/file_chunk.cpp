#include "profiling/datapath/file_chunk.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <exception>

#include "hdc/log_side.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::transport {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;
using proto::FileChunkReq;

namespace {

constexpr int64_t kNoOffset = -1;  // append
// Envelope, all fields but the texts and the chunk, and the chunk's own head: at most.
constexpr size_t kFixedPart = 192;

// The fields are written in the order of their numbers: those in front of Chunk, Chunk, those
// behind it. Two messages hold what is around it.
bool AppendFileChunk(std::string_view data, const FileChunkInfo& info, const std::string& jobCtx,
                     std::string* buffer) {
    FileChunkReq front;
    front.mutable_hdr()->set_job_ctx(jobCtx);
    front.set_filename(info.fileName);
    front.set_offset(kNoOffset);
    if (!message::AppendEnvelope(front, buffer)) {
        return false;
    }
    uint8_t head[2 * 10];
    uint8_t* end = CodedOutputStream::WriteTagToArray(
        WireFormatLite::MakeTag(FileChunkReq::kChunkFieldNumber,
                                WireFormatLite::WIRETYPE_LENGTH_DELIMITED),
        head);
    end = CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(data.size()), end);
    buffer->append(reinterpret_cast<const char*>(head), static_cast<size_t>(end - head));
    buffer->append(data);

    FileChunkReq back;
    back.set_chunksizeinbytes(static_cast<int32_t>(data.size()));
    back.set_islastchunk(info.isLastChunk);
    back.set_needack(false);
    back.set_datamodule(static_cast<int32_t>(info.dataModule));
    return back.AppendToString(buffer);
}

}  // namespace

MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                              const std::string& jobCtx) {
    const size_t texts = jobCtx.size() + info.fileName.size() + kFixedPart;
    if (data.empty() || data.size() > INT_MAX - texts) {
        PROF_LOGE("data size %zu is out of range", data.size());
        return nullptr;
    }
    const MessageBuffer buffer = TakeMessageBuffer(data.size() + texts);
    if (buffer == nullptr) {
        return nullptr;
    }
    try {
        if (AppendFileChunk(data, info, jobCtx, buffer.get())) {
            return buffer;
        }
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
    PROF_LOGE("fileChunk encode failed. fileName:%s", info.fileName.c_str());
    return nullptr;
}

}  // namespace analysis::nedra::transport
