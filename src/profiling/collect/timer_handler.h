// What the timer calls, and the common part of the handlers that sample a file of /proc: when to
// sample, how a sample becomes a record, and how records become chunks for the host.
//
// A record, one after the other in the host's file, with nothing between them:
//
//     TimeStamp:<ns>\nIndex:<number>\nDataLen:<bytes>\n<data>\n
//
// The text after the colon is decimal; Index counts the samples of the handler from 0, and a gap
// is a sample that was lost on its way, or empty; DataLen counts the data alone. A chunk ends at
// the end of a record.
//
// A handler is made and inited on the thread of its engine, executed on the timer's thread and
// uninited on that of its engine, never two at a time; it needs no lock of its own. Only Uninit
// waits for the host.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "profiling/collect/proc_file.h"
#include "profiling/collect/sample_sender.h"
#include "profiling/config/profile_params.h"
#include "profiling/datapath/chunk.h"
#include "profiling/datapath/file_chunk.h"

namespace Analysis::Nedra::JobWrapper {

enum TimerHandlerTag : uint32_t {
    PROF_SYS_STAT = 0,
    PROF_SYS_MEM = 1,
    PROF_ALL_PID = 2,
    PROF_HOST_PROC_CPU = 3,
    PROF_HOST_PROC_MEM = 4,
    PROF_HOST_SYS_NETWORK = 5,
};

class TimerHandler {
public:
    explicit TimerHandler(uint32_t tag) : tag_(tag) {}
    virtual ~TimerHandler() = default;
    // Does what is due at `tick`, in nanoseconds of the clock that samples carry, and returns the
    // tick at which it wants to be called again, a later one. First called when the handler is
    // registered.
    virtual uint64_t Execute(uint64_t tick) = 0;
    // 0 or -1.
    [[nodiscard]] virtual int Init() = 0;
    // Sends what is left, waiting for the host. Always 0.
    virtual int Uninit() = 0;
    [[nodiscard]] uint32_t GetTag() const { return tag_; }

private:
    const uint32_t tag_;
};

// Where samples go, and for whom. `params` is what the host asked for, `jobCtx` the text of the
// job's context, made once for all its chunks.
struct SampleRoad {
    std::shared_ptr<analysis::nedra::message::ProfileParams> params;
    std::shared_ptr<const std::string> jobCtx;
    std::shared_ptr<SampleSender> sender;

    // As the sender's; 0 without one.
    [[nodiscard]] uint64_t SendKept() const;
    // Waits for the host until nothing is kept, and lets the sender go.
    void Finish();
};

struct SampleSpec {
    uint32_t tag;
    uint32_t devId;
    uint64_t bufSize;  // bytes
    uint64_t sampleIntervalNs;
    std::string srcFileName;  // empty: the handler finds its sources itself
    std::string fileName;     // of the data, below "data/"
};

// Nanoseconds of the clock that samples carry.
[[nodiscard]] uint64_t SampleClockNs();
// Appends `text` and ends its last line, if there is any.
void AppendLines(std::string_view text, std::string* out);
// Takes the first line off `text`, without its end. False when there is none.
[[nodiscard]] bool TakeLine(std::string_view* text, std::string_view* line);

// When samples are due: at the first tick and at whole intervals from it on, so that they don't
// drift however late each is taken. Those that have been missed are left out.
class SampleGrid {
public:
    // `intervalNs` is above 0.
    explicit SampleGrid(uint64_t intervalNs) : intervalNs_(intervalNs) {}

    // The first due time after `tick`, which is the one returned last or a later one.
    [[nodiscard]] uint64_t After(uint64_t tick);

private:
    const uint64_t intervalNs_;
    uint64_t due_ = 0;  // returned last; 0: none yet
};

class ProcTimerHandler : public TimerHandler {
public:
    ProcTimerHandler(const SampleSpec& spec, SampleRoad road);
    ~ProcTimerHandler() override;

    uint64_t Execute(uint64_t tick) override;
    // Takes a sample with the time stamp `now`, in nanoseconds: handlers that are called in a row
    // sample at one time.
    void Sample(uint64_t now);
    [[nodiscard]] int Init() override;
    int Uninit() override;
    // Uninit without waiting for the host, for a handler whose sender goes on.
    void End();

protected:
    // Appends to `data` what is to be kept of the source's text; nothing, when nothing is.
    virtual void ParseProcFile(std::string_view text, std::string& data) = 0;
    // Reads the source; `text` stays as it is until the sample is taken.
    [[nodiscard]] virtual ProcFile::Outcome ReadSource(std::string_view* text);
    [[nodiscard]] ProcFile& source() { return source_; }
    [[nodiscard]] const SampleRoad& road() const { return road_; }

private:
    [[nodiscard]] bool TakeText(std::string_view* text);
    void PacketData(std::string& packet, const std::string& data) const;
    void StoreData(const std::string& data);
    void SendData(const char* data, uint64_t len);
    void SendBuffer();
    void FlushBuf();

    analysis::nedra::common::memory::Chunk buf_;
    ProcFile source_;  // with the empty path: none
    bool isInited_ = false;
    bool isFailing_ = false;  // the last upload failed, which is told when it begins
    uint64_t timeStamp_ = 0;  // ns, of the last sample
    SampleGrid grid_;
    uint64_t index_ = 0;  // samples so far, empty ones included
    const std::string retFileName_;
    SampleRoad road_;
    const analysis::nedra::transport::ChunkEncoder encoder_;
};

}  // namespace Analysis::Nedra::JobWrapper
