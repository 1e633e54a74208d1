#include "hdc_session.h"

#include <hdc_driver.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <thread>

#include "results.h"

namespace orla::emulation {

namespace {

constexpr int kIncomplete = -1;  // of AssembleFrame: more bytes are needed

// A lock for a call that may wait, or the attempt for one that may not.
std::unique_lock<std::mutex> LockFor(std::mutex& mutex, bool wait) {
    return wait ? std::unique_lock<std::mutex>(mutex)
                : std::unique_lock<std::mutex>(mutex, std::try_to_lock);
}

void Skip(std::vector<iovec>* pieces, size_t* first, size_t count) {
    while (count > 0) {
        iovec& piece = (*pieces)[*first];
        const size_t step = std::min(count, piece.iov_len);
        piece.iov_base = static_cast<char*>(piece.iov_base) + step;
        piece.iov_len -= step;
        count -= step;
        if (piece.iov_len == 0) {
            ++*first;
        }
    }
}

}  // namespace

// ---- Sending -----------------------------------------------------------------------------------

// Sends until all is out, or until there is no room when `flags` has MSG_DONTWAIT. What is left
// stays in `pieces`.
int Session::SendPieces(std::vector<iovec>* pieces, int flags) {
    size_t first = 0;
    int result = kDone;
    while (first < pieces->size()) {
        msghdr message = {};
        message.msg_iov = pieces->data() + first;
        message.msg_iovlen = pieces->size() - first;
        const ssize_t sent = sendmsg(fd_.get(), &message, flags | MSG_NOSIGNAL);
        if (sent >= 0) {
            Skip(pieces, &first, static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            result = DRV_ERROR_NON_BLOCK;
            break;
        } else if (errno != EINTR) {
            return DRV_ERROR_SOCKET_CLOSE;
        }
    }
    pieces->erase(pieces->begin(), pieces->begin() + static_cast<ptrdiff_t>(first));
    return result;
}

int Session::FlushTail(int flags) {
    if (tail_.empty()) {
        return kDone;
    }
    std::vector<iovec> pieces = {{tail_.data(), tail_.size()}};
    const int result = SendPieces(&pieces, flags);
    const size_t left = pieces.empty() ? 0 : pieces[0].iov_len;
    tail_.erase(tail_.begin(), tail_.end() - static_cast<ptrdiff_t>(left));
    return result;
}

int Session::KeepTail(const std::vector<iovec>& pieces) {
    try {
        for (const iovec& piece : pieces) {
            const char* data = static_cast<const char*>(piece.iov_base);
            tail_.insert(tail_.end(), data, data + piece.iov_len);
        }
        std::thread([self = shared_from_this()] {
            const std::lock_guard<std::mutex> lock(self->sendMutex_);
            static_cast<void>(self->FlushTail(0));
        }).detach();
    } catch (const std::exception&) {
        End();  // the peer must not wait for a rest that nobody sends
        return DRV_ERROR_SOCKET_CLOSE;
    }
    return kDone;
}

int Session::Send(const std::vector<OutgoingBuffer>& buffers, uint64_t flag) {
    const bool wait = flag == HDC_FLAG_WAIT;
    const std::unique_lock<std::mutex> lock = LockFor(sendMutex_, wait);
    if (ended_) {
        return DRV_ERROR_SOCKET_CLOSE;
    }
    if (!lock.owns_lock()) {
        return DRV_ERROR_NON_BLOCK;
    }
    const int flags = wait ? 0 : MSG_DONTWAIT;
    if (const int result = FlushTail(flags); result != kDone) {
        return result;
    }
    headers_.resize(buffers.size());
    pieces_.clear();
    size_t total = 0;
    for (size_t i = 0; i < buffers.size(); ++i) {
        headers_[i].length = buffers[i].length;
        pieces_.push_back({&headers_[i], sizeof(FrameHeader)});
        pieces_.push_back({const_cast<char*>(buffers[i].data), buffers[i].length});
        total += sizeof(FrameHeader) + buffers[i].length;
    }
    const int result = SendPieces(&pieces_, flags);
    if (result != DRV_ERROR_NON_BLOCK) {
        return result;
    }
    for (const iovec& piece : pieces_) {
        total -= piece.iov_len;
    }
    return total == 0 ? result : KeepTail(pieces_);
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
        frameAhead_ = true;
        return kTooLarge;
    }
    if (frame_.data == nullptr) {
        frame_ = pool_->Take(frameLength_);
    }
    const size_t count = std::min<size_t>(aheadEnd_ - aheadBegin_, frameLength_ - frameHave_);
    std::memcpy(&frame_.data[frameHave_], &ahead_[aheadBegin_], count);
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
        {frameLength_ == 0 ? nullptr : &frame_.data[frameHave_], frameLength_ - frameHave_},
        {&ahead_[aheadEnd_], watched() ? header : kAhead - aheadEnd_},
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
    // A length that lies is to be told as well.
    return header.length == 0 || header.length > maxSegment_ ||
           header.length <= have - sizeof(header);
}

int Session::Receive(Message* message, uint32_t largest, uint64_t flag, uint32_t timeoutMs) {
    const std::unique_lock<std::mutex> lock = LockFor(receiveMutex_, flag != HDC_FLAG_NOWAIT);
    std::optional<Clock::time_point> deadline;
    if (flag == HDC_FLAG_TIMEOUT) {
        deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    }
    while (!ended_) {
        if (!lock.owns_lock()) {
            return DRV_ERROR_NON_BLOCK;
        }
        int result = AssembleFrame(largest);
        if (result == kDone) {
            message->SetReceived(std::exchange(frame_, {}), frameLength_);
            frameLength_ = frameHave_ = 0;
            frameAhead_ = HoldsFrameAhead();
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

uint32_t Session::Collect(uint32_t epollEvents) {
    int waiting = 0;
    const bool data = frameAhead_ || (ioctl(fd_.get(), FIONREAD, &waiting) == 0 && waiting > 0);
    const bool gone = (epollEvents & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    uint32_t bits = data ? uint32_t{HDC_EPOLL_DATA_IN} : 0;
    if (gone) {
        bits |= HDC_EPOLL_SESSION_CLOSE;
    }
    return bits;
}

}  // namespace orla::emulation
