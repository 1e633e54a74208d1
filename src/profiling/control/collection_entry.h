// Where a host's sessions come in: the first message of each is a handshake that makes it a control
// session, which a Receiver reads from then on, or a data session, which an Uploader writes. Keeps
// the receivers by job and device, and which job a device serves in which mode; every reply on a
// control session finds its way through here.
//
//     first message --Handle--> CtrlChannelHandshake --> Receiver, in receiverMap_
//                           `-> DataChannelHandshake --> Uploader, in UploaderMgr
//
// Handshakes run on threads of their own, any number at the same time; of two for one device and
// mode the later is refused. Locks in order: receiverMutex_, then modeJobMutex_. No receiver and no
// uploader is waited for under either.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "profiling/config/job_records.h"
#include "profiling/config/singleton.h"
#include "profiling/control/receiver.h"
#include "profiling/datapath/transport.h"
#include "profiling/datapath/uploader.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {

class CollectionEntry : public common::singleton::Singleton<CollectionEntry> {
public:
    // Clears the agent's directory and asks on which side this is. 0 or -1; until it has succeeded
    // every handshake is refused.
    [[nodiscard]] int Init();
    // Closes all control sessions, waits until their jobs have ended with their data, and lets
    // receivers and uploaders go. Always 0.
    int Uninit();

    // Answers the first message of a session. 0, or -1: the session then ends with its transport.
    // `devIndexId`: the device as the driver counts.
    [[nodiscard]] int Handle(const std::shared_ptr<transport::ITransport>& transport,
                             const std::string& message, int devIndexId);
    // Ends the data session of a job: see FinishCollection of collection_finish.h.
    [[nodiscard]] int FinishCollection(int devIdOnHost, const std::string& jobId);

    // ---- The registry -----------------------------------------------------------------------

    // Sends on the control session of that job and device. What SendBuffer answered; -1 for a null
    // message or when there is no such session. With `own`, only on that very session: one thread
    // sends on a session, and a host is told nothing by another one's.
    [[nodiscard]] int SendMsgByDevId(const std::string& jobId, int devIndexId,
                                     const message::MessagePtr& message,
                                     const std::shared_ptr<transport::ITransport>& own = nullptr);
    // Takes the receiver in, in place of the one that served this device and mode before, which is
    // ended. False, and nothing was taken in, for null, when the agent is ending, and while
    // another receiver of that job and device reads. Those that have quit are let go.
    [[nodiscard]] bool AddReceiver(const std::string& mode, const std::string& jobId,
                                   int devIndexId, const std::shared_ptr<Receiver>& receiver);
    // Null, with a log line, when there is none.
    [[nodiscard]] std::shared_ptr<Receiver> GetReceiver(const std::string& jobId, int devIndexId);
    void DeleteReceiver(const std::string& jobId, int devIndexId);

    void AddModeJobIdRelation(int devIndexId, const std::string& mode, const std::string& jobId);
    // The job that serves the device in that mode; empty when there is none.
    [[nodiscard]] std::string GetModeJobIdRelation(int devIndexId, const std::string& mode);
    // Forgets it, and tells which it was.
    std::string DeleteModeJobIdRelation(int devIndexId, const std::string& mode);

private:
    friend common::singleton::Singleton<CollectionEntry>;
    CollectionEntry() = default;

    class Reservation;
    using Receivers = std::map<std::string, std::map<int, std::shared_ptr<Receiver>>>;

    int HandleCtrlSession(const std::shared_ptr<Receiver>& receiver,
                          const proto::CtrlChannelHandshake& handshake, message::StatusInfo& status,
                          int devIndexId);
    int StartReceiver(const std::shared_ptr<Receiver>& receiver,
                      const proto::CtrlChannelHandshake& handshake, message::StatusInfo& status,
                      int devIndexId);
    int HandleDataSession(const std::shared_ptr<transport::Uploader>& uploader,
                          const proto::DataChannelHandshake& handshake, int devIndexId);
    // Data sessions whose hosts have gone without a job. At each handshake: a job with the id of
    // such a session would find it, and could not end well.
    void DelForsakenUploaders();
    // Out of the registry, and still to be ended; null when there is none.
    std::shared_ptr<Receiver> TakeReceiver(const std::string& jobId, int devIndexId);
    // Takes out all that have quit, and forgets what they served.
    [[nodiscard]] std::vector<std::shared_ptr<Receiver>> TakeForsaken();
    // One that still reads, of any device.
    [[nodiscard]] bool HasReceiver(const std::string& jobId);
    // Whether a receiver of that job and device reads; a log line when so.
    bool IsRunning(const std::string& jobId, int devIndexId);

    std::atomic<bool> isInited_{false};

    std::mutex receiverMutex_;
    Receivers receiverMap_;  // by job and device; guarded by receiverMutex_

    std::mutex modeJobMutex_;
    // Guarded by modeJobMutex_, both keyed by device and mode.
    std::map<std::string, std::string> modeJobMap_;  // to the job
    std::set<std::string> handshakes_;               // being answered just now
};

}  // namespace analysis::nedra::device
