#include "host/profile_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "hdc/hdc_api.h"
#include "proto/codec.h"

namespace orla::host {

namespace {

using namespace analysis::nedra::proto;  // NOLINT: the messages, by their names

using std::chrono::milliseconds;

// What the decoder looks at; no limit of the device's own messages is promised.
constexpr uint32_t kMaxMessage = sizeof(IdeRequest) + analysis::nedra::message::kMaxEnvelope;
constexpr milliseconds kGlance{50};  // how soon an interruption is noticed
constexpr int kMaxPatiences = 10;    // for a device that goes on sending
constexpr const char* kStartFailed = "start failed";
constexpr const char* kSeeLog = "the device's log may tell more";

template <typename Message>
Message WithContext(const std::string& context) {
    Message message;
    message.mutable_hdr()->set_job_ctx(context);
    return message;
}

}  // namespace

const char* NameOf(EndCause cause) {
    switch (cause) {
        case EndCause::kNone:
            return "";
        case EndCause::kDuration:
            return "duration";
        case EndCause::kInterrupted:
            return "interrupted";
        case EndCause::kDataEnded:
            return "data_ended";
        case EndCause::kWriteFailed:
            return "write_failed";
        case EndCause::kFault:
            return "fault";
        case EndCause::kBrokenOff:
            return "broken_off";
        case EndCause::kNotRead:
            return "not_read";
    }
    return "";
}

ProfileRun::ProfileRun(Job job, const ProfileRequest& request)
    : job_(std::move(job)), request_(request), files_(job_.dir) {}

ProfileRun::~ProfileRun() {
    Abort();
    static_cast<void>(Join());
}

void ProfileRun::Start() {
    thread_ = std::thread([this] { Run(); });
}

void ProfileRun::Note(EndCause cause) {
    EndCause none = EndCause::kNone;
    cause_.compare_exchange_strong(none, cause);
}

void ProfileRun::Cut(EndCause cause) {
    EndCause before = cause_;
    while (before < EndCause::kBrokenOff && !cause_.compare_exchange_weak(before, cause)) {
    }
    CloseSessions();
}

void ProfileRun::CloseSessions() {
    const std::lock_guard<std::mutex> lock(sessionsMutex_);
    for (Session* session : {control_.get(), data_.get()}) {
        if (session != nullptr) {
            session->Close();
        }
    }
}

void ProfileRun::Tend() {
    const Clock::rep began = sendBegan_;
    if (began != 0 && Clock::now().time_since_epoch().count() - began >
                          std::chrono::duration_cast<Clock::duration>(job_.patience).count()) {
        Cut(EndCause::kNotRead);
    }
}

ProfileProgress ProfileRun::progress() const {
    return {phase_, bytes_, chunks_, samples_};
}

const ProfileResult& ProfileRun::Join() {
    if (thread_.joinable()) {
        thread_.join();
    }
    return result_;
}

// A thread's body lets nothing out.
void ProfileRun::Run() {
    try {
        Converse();
    } catch (const std::exception& e) {
        Fail(kExitIncomplete, e.what());
    }
    Conclude();
    phase_ = ProfilePhase::kDone;
}

void ProfileRun::Converse() {
    if (!Begin()) {
        return;
    }
    phase_ = ProfilePhase::kRunning;
    const auto start = Clock::now();
    WaitForTheEnd();
    result_.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    phase_ = ProfilePhase::kEnding;
    End();
}

bool ProfileRun::Open(std::unique_ptr<Session>* session) {
    auto opened = client_ != nullptr ? client_->Connect(job_.device) : nullptr;
    if (opened == nullptr) {
        Fail(kExitConnection, "no daemon listens on this device");
        return false;
    }
    const std::lock_guard<std::mutex> lock(sessionsMutex_);
    *session = std::move(opened);
    return true;
}

bool ProfileRun::Begin() {
    const std::string context = JobContextText(job_.id, job_.device);
    client_ = Client::Create(kHdcServiceRequests, kMaxMessage);
    const auto shakeHands = [this](std::unique_ptr<Session>* session, auto handshake,
                                   const Step& step) {
        handshake.set_jobid(job_.id);
        handshake.set_devid(static_cast<int32_t>(job_.device));
        handshake.set_mode(request_.mode);
        return Open(session) && Ask(**session, step, handshake) == Answer::kAccepted;
    };
    if (!shakeHands(&control_, CtrlChannelHandshake(),
                    {"control handshake", "", "an earlier job of this mode may still run there"}) ||
        !shakeHands(&data_, DataChannelHandshake(),
                    {"data handshake", "", "it may not know this mode"})) {
        return false;
    }
    dataThread_ = std::thread([this] { DrainAll(); });

    auto jobStart = WithContext<JobStartReq>(context);
    jobStart.set_sampleconfig(ParametersText(request_, job_.id, job_.device));
    auto replayStart = WithContext<ReplayStartReq>(context);
    for (const std::string& event : request_.cpuEvents) {
        replayStart.add_ctrl_cpu_events(event);
    }
    for (const std::string& event : request_.llcEvents) {
        replayStart.add_llc_events(event);
    }
    const Step start{"start", kStartFailed,
                     "every source is off, or held by a job on another device of this machine"};
    result_.started =
        Ask(*control_, {"job start", "start job failed", kSeeLog}, jobStart) == Answer::kAccepted &&
        Ask(*control_, start, replayStart) == Answer::kAccepted;
    return result_.started;
}

// Until the time is up, the user ends it, or the device or this machine cannot go on.
void ProfileRun::WaitForTheEnd() {
    const auto start = Clock::now();
    const std::chrono::duration<double> duration(job_.durationSeconds);
    while (cause_ == EndCause::kNone) {
        if (dataEnd_ != DataEnd::kNone) {
            Note(EndCause::kDataEnded);
            Broken("the device ended the data session before it was asked to");
            return;
        }
        if (writeFailed_) {
            Note(EndCause::kWriteFailed);
            return;
        }
        auto glance = kGlance;
        if (job_.durationSeconds > 0) {
            const auto left = duration - (Clock::now() - start);
            if (left.count() <= 0) {
                Note(EndCause::kDuration);
                return;
            }
            glance =
                std::min(glance, std::chrono::duration_cast<milliseconds>(left) + milliseconds(1));
        }
        std::string bytes;
        switch (control_->Receive(static_cast<int>(glance.count()), &bytes)) {
            case ReceiveResult::kTimeout:
                break;
            case ReceiveResult::kMessage:
                Broken("the device answered what nobody had asked");
                return;
            default:
                Broken("the device went away while the job ran");
                return;
        }
    }
}

void ProfileRun::End() {
    const std::string context = JobContextText(job_.id, job_.device);
    auto jobStop = WithContext<JobStopReq>(context);
    jobStop.set_jobid(job_.id);
    const Answer replayStop =
        Ask(*control_, {"stop", "stop failed", kSeeLog}, WithContext<ReplayStopReq>(context));
    // A refused stop does not keep the job: its end gives everything back. But behind a question
    // without an answer a later answer could not be told from that to the next one.
    result_.stopped =
        replayStop != Answer::kNone &&
        Ask(*control_, {"job stop", "stop job failed", kSeeLog}, jobStop) == Answer::kAccepted;
    // The finish message was sent before the last answer; it may still be on its way.
    const auto deadline = Clock::now() + job_.patience;
    while (result_.stopped && dataEnd_ == DataEnd::kNone && !isCut() && Clock::now() < deadline) {
        std::this_thread::sleep_for(kGlance / 10);
    }
}

// Ends the data thread, and weighs what has come.
void ProfileRun::Conclude() {
    quitData_ = true;
    if (dataThread_.joinable()) {
        dataThread_.join();
    }
    CloseSessions();
    result_.cause = cause_;
    result_.finishCame = dataEnd_ == DataEnd::kFinished;
    result_.files = files_.files();
    if (!result_.started) {
        return;
    }
    result_.silent = SilentSources(request_, result_.files);
    if (!dataFault_.empty()) {
        Fail(kExitIncomplete, dataFault_);
    }
    for (const auto& [name, file] : result_.files) {
        if (!file.problem.empty()) {
            Fail(kExitIncomplete, fmt::format("{}: {}", name, file.problem));
        }
    }
    if (files_.excess() > 0) {
        Fail(kExitIncomplete,
             fmt::format("{} chunks of files with too long names, or of too many files",
                         files_.excess()));
    }
    if (!result_.finishCame) {
        Fail(kExitIncomplete, "the end of the data did not come");
    }
    if (!result_.silent.empty()) {
        result_.onlySilent = result_.code == kExitOk;
        Fail(kExitIncomplete, fmt::format("the device accepted the job, but nothing came from: {}",
                                          fmt::join(result_.silent, ", ")));
    }
}

void ProfileRun::Fail(ExitCode code, std::string reason) {
    if (result_.code == kExitOk) {  // what follows from the first failure would hide it
        result_.code = code;
        result_.reason = std::move(reason);
    }
}

// Once the sessions are cut every operation on them fails: that is no fault of the device's.
ProfileRun::Answer ProfileRun::Broken(const std::string& reason) {
    if (cause_ == EndCause::kBrokenOff) {
        Fail(kExitIncomplete, "broken off");
        return Answer::kNone;
    }
    if (cause_ == EndCause::kNotRead) {
        Fail(chunks_ > 0 ? kExitIncomplete : kExitConnection,
             fmt::format("the device did not read within {} s", job_.patience.count() / 1000));
        return Answer::kNone;
    }
    Note(EndCause::kFault);
    Fail(chunks_ > 0 ? kExitIncomplete : kExitConnection, reason);
    return Answer::kNone;
}

ProfileRun::Answer ProfileRun::Refused(const Step& step, const std::string& reason) {
    Note(EndCause::kFault);
    Fail(kExitRefused, fmt::format("{} refused: {}", step.name, reason));
    return Answer::kRefused;
}

bool ProfileRun::Send(Session& session, const ProtoMessage& message) {
    const std::string envelope = Envelope(message);
    sendBegan_ = Clock::now().time_since_epoch().count();
    const bool sent = !envelope.empty() && session.SendRequest(kRequestProfiling, envelope);
    sendBegan_ = 0;
    return sent;
}

// Sends a request and waits for its answer. Every end but an accepted request is noted.
ProfileRun::Answer ProfileRun::Ask(Session& session, const Step& step,
                                   const ProtoMessage& message) {
    if (!Send(session, message)) {
        return Broken(fmt::format("{}: the request could not be sent", step.name));
    }
    const auto last = Clock::now() + kMaxPatiences * job_.patience;
    auto deadline = Clock::now() + job_.patience;
    uint64_t seen = chunks_;
    while (!isCut()) {
        std::string bytes;
        switch (session.Receive(static_cast<int>(kGlance.count()), &bytes)) {
            case ReceiveResult::kMessage:
                return TakeReply(step, bytes);
            case ReceiveResult::kClosed:
                return Broken(fmt::format("{}: the device closed the session", step.name));
            case ReceiveResult::kFailed:
                return Broken(fmt::format("{}: the session broke", step.name));
            case ReceiveResult::kTimeout:
                break;
        }
        if (cause_ == EndCause::kInterrupted && !dataThread_.joinable()) {
            Fail(kExitIncomplete, "interrupted before the job began");
            return Answer::kNone;
        }
        // A device that still sends its data is busy, not silent.
        if (const uint64_t now = chunks_; now != seen) {
            seen = now;
            deadline = std::min(last, Clock::now() + job_.patience);
        }
        if (Clock::now() > deadline) {
            return Broken(
                fmt::format("{}: no answer within {} s", step.name, job_.patience.count() / 1000));
        }
    }
    return Broken("");
}

ProfileRun::Answer ProfileRun::TakeReply(const Step& step, const std::string& bytes) {
    const Incoming reply = ReadIncoming(bytes);
    switch (reply.kind) {
        case IncomingKind::kResponse:
            if (reply.accepted) {
                return Answer::kAccepted;
            }
            result_.heldOrOff = step.emptyWords == kStartFailed && reply.info == kStartFailed;
            return Refused(step, reply.info.empty() ? fmt::format("no reason given ({})", step.hint)
                                 : reply.info == step.emptyWords
                                     ? fmt::format("{} ({})", reply.info, step.hint)
                                     : reply.info);
        case IncomingKind::kContainer:
            return Refused(step, "the device does not serve containers");
        default:
            return Broken(fmt::format("{}: what the device sent is no answer", step.name));
    }
}

void ProfileRun::DrainAll() {
    try {
        Drain();
    } catch (const std::exception& e) {
        dataFault_ = e.what();
        dataEnd_ = DataEnd::kBroken;
    }
}

void ProfileRun::Drain() {
    while (!quitData_) {
        std::string bytes;
        switch (data_->Receive(static_cast<int>(kGlance.count()), &bytes)) {
            case ReceiveResult::kMessage:
                if (!TakeData(bytes)) {
                    return;
                }
                break;
            case ReceiveResult::kTimeout:
                break;
            case ReceiveResult::kClosed:
                dataEnd_ = DataEnd::kClosed;
                return;
            case ReceiveResult::kFailed:
                dataEnd_ = DataEnd::kBroken;
                return;
        }
    }
}

// False when nothing more is to be read.
bool ProfileRun::TakeData(const std::string& bytes) {
    const Incoming incoming = ReadIncoming(bytes);
    switch (incoming.kind) {
        case IncomingKind::kChunk:
            samples_ += files_.Take(*incoming.chunk);
            bytes_ += incoming.chunk->chunk().size();
            ++chunks_;
            writeFailed_ = files_.writeFailed();
            return true;
        case IncomingKind::kFinish:
            dataEnd_ = DataEnd::kFinished;
            return false;
        default:
            // One message costs itself; that it came is told at the end.
            dataFault_ = "the device sent on its data session what is no data";
            return true;
    }
}

}  // namespace orla::host
