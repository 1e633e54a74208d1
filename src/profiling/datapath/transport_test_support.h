// For the tests of whatever sends through a transport: a host in the same process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/datapath/transport.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace orla::test {

// A host on a data session that takes `pace` for each message, or nothing while it does not read.
// One that has been cut off takes no more. Of the message "short" it takes a byte less, and "cut"
// leaves a session that is of no use. Each Segment() is a part of a message that it has taken.
class PacedHost : public analysis::nedra::transport::ITransport {
public:
    explicit PacedHost(std::chrono::milliseconds pace = {}) : pace_(pace) {}

    int SendBuffer(const void* buffer, int length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        ++begun_;
        changed_.wait_for(lock, pace_, [this] { return closed_; });
        changed_.wait(lock, [this] { return reads_ || closed_; });
        if (closed_) {
            return -1;
        }
        got_.emplace_back(static_cast<const char*>(buffer), static_cast<size_t>(length));
        usable_ = got_.back() != "cut";
        if (!usable_) {
            return -1;
        }
        return got_.back() == "short" ? length - 1 : length;
    }
    int CloseSession() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        changed_.notify_all();
        return 0;
    }
    void WriteDone() override {}
    int SendVeltBuffer(void*, int) override { return -1; }
    int RecvPacket(IdeRequest**) override { return -1; }
    void DestroyPacket(IdeRequest*) override {}
    bool IsUsable() const override {
        const std::lock_guard<std::mutex> lock(mutex_);
        return usable_;
    }
    std::chrono::steady_clock::time_point LastSegment() const override {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lastSegment_;
    }

    void Segment() {
        const std::lock_guard<std::mutex> lock(mutex_);
        lastSegment_ = std::chrono::steady_clock::now();
    }
    bool Closed() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return closed_;
    }
    void Read(bool on, std::chrono::milliseconds pace = {}) {
        const std::lock_guard<std::mutex> lock(mutex_);
        reads_ = on;
        pace_ = pace;
        changed_.notify_all();
    }
    // What it took, in order.
    std::vector<std::string> Got() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }
    // Sends that have begun.
    int Begun() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return begun_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::chrono::milliseconds pace_;
    bool reads_ = true;
    bool closed_ = false;
    bool usable_ = true;
    std::chrono::steady_clock::time_point lastSegment_;
    int begun_ = 0;
    std::vector<std::string> got_;
};

using FileChunk = analysis::nedra::proto::FileChunkReq;

// What the host took, in order; null for a message that is no chunk.
inline std::vector<std::shared_ptr<FileChunk>> ChunksOf(PacedHost& host) {
    std::vector<std::shared_ptr<FileChunk>> chunks;
    for (const std::string& bytes : host.Got()) {
        chunks.push_back(
            std::dynamic_pointer_cast<FileChunk>(analysis::nedra::message::DecodeMessage(bytes)));
    }
    return chunks;
}

}  // namespace orla::test
