// One profiling job on one device: the conversation on its control session, the data of its data
// session as files, and what came of it.
//
//     handshakes -> job start -> replay start -> running -> replay stop -> job stop -> done
//
// Two threads per job: one that leads the conversation, and one that drains the data session from
// its handshake to its end, so that a device that ends a job always finds a reader. Both are this
// object's; Start, Interrupt, Abort, Tend, progress and Join belong to the thread that made it,
// which calls Tend a few times a second: it is what bounds a send to a device that does not read.
//
// Nothing waits longer than the patience for a device that stays silent, or ten times as long for
// one that goes on sending after its job was ended.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/chunk_files.h"
#include "host/device_session.h"
#include "host/exit_codes.h"
#include "host/profile_request.h"
#include "host/profile_wire.h"

namespace orla::host {

// Why a job ends, as one value: the first cause is kept, but for one that cuts the sessions, which
// stands over those that end a job in order.
enum class EndCause {
    kNone,
    kDuration,     // its time was up
    kInterrupted,  // the user asked for it
    kDataEnded,    // the device ended the data session
    kWriteFailed,  // this machine cannot write
    kFault,        // the conversation came to no end, or was refused
    // From here on the sessions are cut.
    kBrokenOff,  // the user did not want to wait for the device
    kNotRead,    // the device did not take a message within the patience
};
[[nodiscard]] const char* NameOf(EndCause cause);

enum class ProfilePhase { kStarting, kRunning, kEnding, kDone };

struct ProfileProgress {
    ProfilePhase phase;
    uint64_t bytes;
    uint64_t chunks;
    uint64_t samples;
};

struct ProfileResult {
    ExitCode code = kExitOk;
    std::string reason;       // why the code is not 0
    bool started = false;     // the device accepted the job and its start
    bool stopped = false;     // it confirmed the end
    bool finishCame = false;  // the last message of the data session was received
    EndCause cause = EndCause::kNone;
    bool heldOrOff = false;   // the start was refused since no source of the request could begin
    bool onlySilent = false;  // nothing else than silent sources is wrong
    std::optional<uint32_t> servedBy;  // the device whose job samples what this one lacks
    double seconds = 0;                // from the accepted start to the request to stop
    std::vector<std::string> silent;
    std::map<std::string, ReceivedFile> files;
};

class ProfileRun {
public:
    struct Job {
        uint32_t device;
        std::string id;              // letters, digits and '-'
        std::filesystem::path dir;   // exists; the files go below it
        double durationSeconds = 0;  // 0: until interrupted
        std::chrono::milliseconds patience{60'000};
    };

    ProfileRun(Job job, const ProfileRequest& request);
    ~ProfileRun();  // aborts what still runs
    ProfileRun(const ProfileRun&) = delete;
    ProfileRun& operator=(const ProfileRun&) = delete;

    void Start();
    // Ends the job in order; before it runs, gives up at the next step.
    void Interrupt() { Note(EndCause::kInterrupted); }
    // Ends the sessions, whatever the job is doing.
    void Abort() { Cut(EndCause::kBrokenOff); }
    // Closes the sessions when a send has been blocked for longer than the patience.
    void Tend();

    const Job& job() const { return job_; }
    ProfileProgress progress() const;
    // Waits for the threads; they end on their own when the phase is kDone.
    [[nodiscard]] const ProfileResult& Join();

private:
    using Clock = std::chrono::steady_clock;
    using ProtoMessage = google::protobuf::Message;

    // One request and what its refusal means to a user.
    struct Step {
        const char* name;
        const char* emptyWords;  // what the device says when it has nothing to say
        const char* hint;        // what such a refusal most likely means
    };
    enum class DataEnd { kNone, kFinished, kClosed, kBroken };
    enum class Answer { kAccepted, kRefused, kNone };

    // The thread of the conversation.
    void Run();
    void Converse();
    bool Begin();
    bool Open(std::unique_ptr<Session>* session);
    void WaitForTheEnd();
    void End();
    void Conclude();
    [[nodiscard]] Answer Ask(Session& session, const Step& step, const ProtoMessage& message);
    bool Send(Session& session, const ProtoMessage& message);
    Answer TakeReply(const Step& step, const std::string& bytes);
    Answer Refused(const Step& step, const std::string& reason);
    Answer Broken(const std::string& reason);
    void Fail(ExitCode code, std::string reason);

    // Any thread.
    void Note(EndCause cause);  // of an end in order
    void Cut(EndCause cause);
    void CloseSessions();
    bool isCut() const { return cause_ >= EndCause::kBrokenOff; }

    // The thread of the data session.
    void Drain();
    void DrainAll();
    bool TakeData(const std::string& bytes);

    const Job job_;
    const ProfileRequest& request_;

    // Made by the conversation's thread, closed by any; they outlive both threads.
    std::mutex sessionsMutex_;
    std::unique_ptr<Client> client_;
    std::unique_ptr<Session> control_;
    std::unique_ptr<Session> data_;

    std::atomic<EndCause> cause_{EndCause::kNone};
    std::atomic<bool> quitData_{false};
    std::atomic<ProfilePhase> phase_{ProfilePhase::kStarting};
    std::atomic<Clock::rep> sendBegan_{0};  // 0: no send is on its way
    std::atomic<DataEnd> dataEnd_{DataEnd::kNone};
    std::atomic<bool> writeFailed_{false};
    std::atomic<uint64_t> bytes_{0};
    std::atomic<uint64_t> chunks_{0};
    std::atomic<uint64_t> samples_{0};

    ChunkFiles files_;        // the data thread's until it is joined
    std::string dataFault_;   // the same; what the device sent that it must not
    ProfileResult result_;    // the conversation's until it is joined
    std::thread dataThread_;  // the conversation's
    std::thread thread_;
};

}  // namespace orla::host
