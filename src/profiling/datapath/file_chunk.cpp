#include "profiling/datapath/file_chunk.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <exception>
#include <functional>

#include "hdc/log_side.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::transport {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;
using proto::FileChunkReq;

namespace {

constexpr int64_t kNoOffset = -1;  // append
// Envelope and fields in front of the chunk, but for the texts; and the chunk's length: at most.
constexpr size_t kHeadRoom = 128;
constexpr size_t kMaxVarint = 10;

bool Appended(const std::function<bool()>& append, const FileChunkInfo& info) {
    try {
        if (append()) {
            return true;
        }
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return false;
    }
    PROF_LOGE("fileChunk encode failed. fileName:%s", info.fileName.c_str());
    return false;
}

}  // namespace

// Fields are written in the order of their numbers: those in front of Chunk are the head, those
// behind it the tail, each made as a message of its own.

bool AppendChunkHead(const FileChunkInfo& info, const std::string& jobCtx, std::string* out) {
    const auto append = [&] {
        FileChunkReq head;
        head.mutable_hdr()->set_job_ctx(jobCtx);
        head.set_filename(info.fileName);
        head.set_offset(kNoOffset);
        constexpr uint32_t kTag = WireFormatLite::MakeTag(
            FileChunkReq::kChunkFieldNumber, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
        static_assert(kTag < 0x80, "one byte");
        if (!message::AppendEnvelope(head, out)) {
            return false;
        }
        out->push_back(static_cast<char>(kTag));
        return true;
    };
    return Appended(append, info);
}

bool AppendChunkTail(size_t size, const FileChunkInfo& info, std::string* out) {
    const auto append = [&] {
        FileChunkReq tail;
        tail.set_chunksizeinbytes(static_cast<int32_t>(size));
        tail.set_islastchunk(info.isLastChunk);
        tail.set_needack(false);
        tail.set_datamodule(static_cast<int32_t>(info.dataModule));
        return tail.AppendToString(out);
    };
    return Appended(append, info);
}

MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                              const std::string& jobCtx) {
    const size_t around = jobCtx.size() + info.fileName.size() + kHeadRoom + kChunkTailRoom;
    if (data.size() > INT_MAX - around) {
        PROF_LOGE("data size %zu is out of range", data.size());
        return nullptr;
    }
    const MessageBuffer buffer = TakeMessageBuffer(data.size() + around);
    if (buffer == nullptr || !AppendChunkHead(info, jobCtx, buffer.get())) {
        return nullptr;
    }
    if (data.empty()) {
        buffer->pop_back();  // a field without bytes is not written, nor is its tag
    } else {
        uint8_t length[kMaxVarint];
        const uint8_t* end =
            CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(data.size()), length);
        buffer->append(reinterpret_cast<const char*>(length), static_cast<size_t>(end - length));
        buffer->append(data);
    }
    return AppendChunkTail(data.size(), info, buffer.get()) ? buffer : nullptr;
}

}  // namespace analysis::nedra::transport
