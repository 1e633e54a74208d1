// The thread of one control session: it reads the host's commands, one at a time, and has each
// dealt with, reply included, before it reads the next. It ends when the session does; the tasks of
// the session are reset then.
//
//             Init          Start          the host goes, or Uninit
//    made ----------> inited ------> running --------------------> quit
//
// An object that has quit stays registered: that it has is what lets the next host in. Whoever
// takes one out of the registry calls Uninit, on another thread than the receiver's own and with
// no lock held, before letting go of it: a last reference may drop on the receiver's own thread
// otherwise, which cannot wait for itself.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "profiling/control/dispatcher.h"
#include "profiling/datapath/thread.h"
#include "profiling/datapath/transport.h"

namespace analysis::nedra::device {

class Receiver : public common::thread::Thread {
public:
    explicit Receiver(std::shared_ptr<transport::ITransport> transport);
    ~Receiver() override;

    // Makes the handlers. `devId`: the device as the driver counts. 0, or -1 when memory is out.
    [[nodiscard]] int Init(int devId);
    // Closes the session, which ends the thread, and waits for that. Always 0; a second call does
    // nothing.
    int Uninit();
    // Closes the session and does not wait.
    void CloseSession();
    // The device as the host counts. Before Start.
    void SetDevIdOnHost(int devIdOnHost) { devIdOnHost_ = devIdOnHost; }

    // What SendBuffer answered; -1 for a null message and after Uninit. Any thread.
    [[nodiscard]] int SendMessage(const message::MessagePtr& message);
    // Null after Uninit. Any thread.
    [[nodiscard]] std::shared_ptr<transport::ITransport> GetTransport() const;

protected:
    void Run(const common::thread::TraceletErrorContext& context) override;

private:
    // One message. False when the session has ended.
    bool ServeOne(transport::ITransport& transport);

    std::shared_ptr<message::MsgDispatcher> dispatcher_;  // of Init, then the thread's
    std::atomic<int> devId_{-1};
    std::atomic<int> devIdOnHost_{-1};
    std::atomic<bool> isInited_{false};
    std::atomic<bool> isClosed_{false};  // by this side

    std::mutex sendMutex_;  // held for the sending of one message

    mutable std::mutex mutex_;
    std::shared_ptr<transport::ITransport> transport_;  // guarded by mutex_
};

}  // namespace analysis::nedra::device
