#include "hdc_session.h"

#include <hdc_driver.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "results.h"

namespace orla::emulation {

namespace {

constexpr int kIncomplete = -1;  // of AssembleFrame: more bytes are needed

void Skip(iovec** pieces, size_t* count, size_t bytes) {
    while (*count > 0 && bytes >= (*pieces)->iov_len) {
        bytes -= (*pieces)->iov_len;
        ++*pieces;
        --*count;
    }
    if (bytes > 0) {
        (*pieces)->iov_base = static_cast<char*>((*pieces)->iov_base) + bytes;
        (*pieces)->iov_len -= bytes;
    }
}

}  // namespace

// ---- Sending -----------------------------------------------------------------------------------

// A failure ends the session: the stream may have stopped in the middle of a frame. Once a part is
// out, the rest is waited for.
int Session::SendAll(iovec* pieces, size_t count, int flags) {
    while (count > 0) {
        msghdr message = {};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(fd_.get(), &message, flags | MSG_NOSIGNAL);
        if (sent >= 0) {
            Skip(&pieces, &count, static_cast<size_t>(sent));
            flags = 0;
        } else if (errno == EAGAIN) {
            return DRV_ERROR_NON_BLOCK;
        } else if (errno != EINTR) {
            End();
            return DRV_ERROR_SOCKET_CLOSE;
        }
    }
    return kDone;
}

// The system accounts for more than the bytes: a head of some hundreds for every 32 KiB, and whole
// pages.
bool Session::HasRoomFor(size_t bytes) const {
    int all = 0;
    int taken = 0;
    socklen_t size = sizeof(all);
    if (getsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &all, &size) != 0 ||
        ioctl(fd_.get(), SIOCOUTQ, &taken) != 0) {
        return true;  // sending tells what is wrong
    }
    constexpr size_t kHead = 8192;
    return taken + bytes + bytes / 4 + kHead <= static_cast<size_t>(all);
}

int Session::Send(const OutgoingBuffer& buffer, uint64_t flag) {
    if (ended_) {
        return DRV_ERROR_SOCKET_CLOSE;
    }
    FrameHeader header = {buffer.length()};
    const bool wait = flag == HDC_FLAG_WAIT;
    if (!wait && !HasRoomFor(sizeof(header) + buffer.length())) {
        return DRV_ERROR_NON_BLOCK;
    }
    iovec pieces[] = {{&header, sizeof(header)},
                      {const_cast<char*>(buffer.data()), buffer.length()}};
    return SendAll(pieces, std::size(pieces), wait ? 0 : MSG_DONTWAIT);
}

// ---- Receiving ---------------------------------------------------------------------------------

// Moves what was read ahead into the frame.
int Session::AssembleFrame(uint32_t largest) {
    if (frameLength_ == 0) {
        FrameHeader header;
        if (aheadEnd_ - aheadBegin_ < sizeof(header)) {
            return kIncomplete;
        }
        std::memcpy(&header, &ahead_[aheadBegin_], sizeof(header));
        if (header.length == 0 || header.length > maxSegment_) {
            End();
            return kBadFrame;
        }
        aheadBegin_ += sizeof(header);
        frameLength_ = header.length;
    }
    if (frameLength_ > largest) {
        return kTooLarge;
    }
    if (frame_.data == nullptr) {
        frame_ = pool_->Take(frameLength_ + Offset());
    }
    const size_t count = std::min<size_t>(aheadEnd_ - aheadBegin_, frameLength_ - frameHave_);
    std::memcpy(FrameEnd(), &ahead_[aheadBegin_], count);
    aheadBegin_ += count;
    frameHave_ += static_cast<uint32_t>(count);
    return frameHave_ == frameLength_ ? kDone : kIncomplete;
}

int Session::WaitReadable(Clock::time_point deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd poller = {fd_.get(), POLLIN, 0};
    const int ready =
        poll(&poller, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, INT32_MAX)));
    return ready == 0 && left <= 0 ? DRV_ERROR_WAIT_TIMEOUT : kDone;
}

void Session::TakeFromSocket(size_t count) {
    if (frameLength_ != 0) {
        const size_t body = std::min<size_t>(count, frameLength_ - frameHave_);
        frameHave_ += static_cast<uint32_t>(body);
        count -= body;
    }
    aheadEnd_ += count;
}

// One read: the rest of the frame, or its header, and as much as may come ahead of the next.
int Session::Fill(uint64_t flag, std::optional<Clock::time_point> deadline) {
    std::copy(&ahead_[aheadBegin_], &ahead_[aheadEnd_], ahead_.data());
    aheadEnd_ -= std::exchange(aheadBegin_, 0);
    if (deadline) {
        if (const int result = WaitReadable(*deadline); result != kDone) {
            return result;
        }
    }
    const size_t header = frameLength_ == 0 ? sizeof(FrameHeader) - aheadEnd_ : 0;
    iovec pieces[2] = {
        {frameLength_ == 0 ? nullptr : FrameEnd(), frameLength_ - frameHave_},
        {&ahead_[aheadEnd_], input_ == Input::kShown ? header : kAhead - aheadEnd_},
    };
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    const ssize_t count = recvmsg(fd_.get(), &message, flag == HDC_FLAG_WAIT ? 0 : MSG_DONTWAIT);
    if (count > 0) {
        TakeFromSocket(static_cast<size_t>(count));
        return kDone;
    }
    if (count < 0 && errno == EAGAIN) {
        return flag == HDC_FLAG_NOWAIT ? DRV_ERROR_NON_BLOCK : kDone;
    }
    return count < 0 && errno == EINTR ? kDone : DRV_ERROR_SOCKET_CLOSE;
}

bool Session::HoldsFrameAhead() const {
    FrameHeader header;
    const size_t have = aheadEnd_ - aheadBegin_;
    if (have < sizeof(header)) {
        return false;
    }
    std::memcpy(&header, &ahead_[aheadBegin_], sizeof(header));
    return header.length != 0 && header.length <= have - sizeof(header);
}

// Gives the message the frame, and what else the scenario wants it to carry.
void Session::HandOver(Message* message) {
    if (style_ == ReceiveStyle::kEmpty) {
        message->AddReceived({}, 0, 0);
    }
    message->AddReceived(std::exchange(frame_, {}), Offset(), frameLength_);
    frameLength_ = frameHave_ = 0;
    while (style_ == ReceiveStyle::kSeveral && message->receivedCount() < Message::kMaxReceived &&
           HoldsFrameAhead() && AssembleFrame(UINT32_MAX) == kDone) {
        message->AddReceived(std::exchange(frame_, {}), 0, frameLength_);
        frameLength_ = frameHave_ = 0;
    }
}

int Session::Receive(Message* message, uint32_t largest, uint64_t flag, uint32_t timeoutMs) {
    Input untouched = Input::kUntouched;
    input_.compare_exchange_strong(untouched, Input::kReadAhead);
    std::optional<Clock::time_point> deadline;
    if (flag == HDC_FLAG_TIMEOUT) {
        deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    }
    while (!ended_) {
        int result = AssembleFrame(largest);
        if (result == kDone) {
            HandOver(message);
            return kDone;
        }
        if (result == kIncomplete) {
            result = Fill(flag, deadline);
        }
        if (result != kDone) {
            return result;
        }
    }
    return DRV_ERROR_SOCKET_CLOSE;
}

// ---- State -------------------------------------------------------------------------------------

void Session::End() {
    ended_ = true;
    shutdown(fd_.get(), SHUT_RDWR);
}

bool Session::BeginShowing() {
    Input input = Input::kUntouched;
    return input_.compare_exchange_strong(input, Input::kShown) || input == Input::kShown;
}

uint32_t Session::Collect(uint32_t epollEvents) {
    int waiting = 0;
    const bool data = ioctl(fd_.get(), FIONREAD, &waiting) == 0 && waiting > 0;
    const bool gone = (epollEvents & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    uint32_t bits = data ? uint32_t{HDC_EPOLL_DATA_IN} : 0;
    if (gone) {
        bits |= HDC_EPOLL_SESSION_CLOSE;
    }
    return bits;
}

// ---- Calls -------------------------------------------------------------------------------------

SessionVisit::SessionVisit(Session* session, HandleValue handle, Call call, const Caller& caller)
    : session_(session), caller_(caller), role_(RoleOf(call)) {
    if (session_ == nullptr) {
        return;
    }
    ++session_->visits_;
    if (role_ == nullptr) {
        return;
    }
    if (const uint64_t other = role_->exchange(caller_.value())) {
        Breach("two at once on a session", HandleText(handle), caller_.Text(),
               Caller::Of(other).Text());
    }
    const uint64_t failed = session_->failedSender_;
    if (call == Call::halHdcSend && failed != 0) {
        Breach("a send after one that failed", HandleText(handle), caller_.Text(),
               Caller::Of(failed).Text());
    }
}

SessionVisit::~SessionVisit() {
    if (role_ != nullptr) {
        *role_ = 0;
    }
    if (session_ != nullptr) {
        --session_->visits_;
    }
}

std::atomic<uint64_t>* SessionVisit::RoleOf(Call call) const {
    if (session_ == nullptr) {
        return nullptr;
    }
    switch (call) {
        case Call::halHdcSend:
            return &session_->sender_;
        case Call::halHdcRecv:
            return &session_->receiver_;
        default:
            return nullptr;
    }
}

void SessionVisit::SetResult(int result) {
    if (session_ != nullptr && role_ == &session_->sender_ && result != kDone &&
        result != DRV_ERROR_NON_BLOCK) {
        session_->failedSender_ = caller_.value();
    }
}

}  // namespace orla::emulation
